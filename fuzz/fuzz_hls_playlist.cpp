// libFuzzer target: arbitrary text as an HLS playlist. Whatever parses must
// hold together: segments in order, times adding up, every address absolute
// against the base, and time look-ups landing inside the list.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "korvalen_types.h"
#include "source/hls/hls_playlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    HLS_PLAYLIST p;
    const std::string base = "https://127.0.0.1:8443/live/cam1/index.m3u8?token=1";
    const uint32_t err = HLS_ParsePlaylist(reinterpret_cast<const char*>(data), size, base, &p);
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_HLS_PLAYLIST && err != KORVALEN_ERR_HLS_UNSUPPORTED) {
            std::abort();
        }
        return 0;
    }
    double t = 0;
    for (size_t i = 0; i < p.segments.size(); ++i) {
        const HLS_SEGMENT& s = p.segments[i];
        if (s.start != t || s.duration < 0 || s.sequence != p.mediaSequence + static_cast<int64_t>(i) ||
            s.url.find("://") == std::string::npos) {
            std::abort();
        }
        t += s.duration;
        const int64_t at = HLS_FindSegmentByTime(p, s.start);
        if (s.duration > 0 && (at < 0 || p.segments[static_cast<size_t>(at)].start > s.start)) {
            std::abort();
        }
    }
    for (const HLS_VARIANT& v : p.variants) {
        if (v.url.find("://") == std::string::npos) {
            std::abort();
        }
    }
    if (HLS_FindSegmentByTime(p, p.total + 1) != -1) {
        std::abort();
    }
    return 0;
}
