#include "source/hls/hls_playlist.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "korvalen_types.h"

namespace {

bool StartsWith(const std::string& s, const char* prefix)
{
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// Value of NAME=... in an attribute list (quoted or bare); empty when absent.
std::string Attribute(const std::string& list, const char* name)
{
    const size_t n = std::strlen(name);
    size_t at = 0;
    bool quoted = false;
    for (size_t i = 0; i <= list.size(); ++i) {
        if (i < list.size() && list[i] == '"') {
            quoted = !quoted;
        }
        if (i < list.size() && (quoted || list[i] != ',')) {
            continue;
        }
        std::string item = list.substr(at, i - at);
        at = i + 1;
        while (!item.empty() && item[0] == ' ') {
            item.erase(0, 1);
        }
        if (item.size() > n && item.compare(0, n, name) == 0 && item[n] == '=') {
            std::string v = item.substr(n + 1);
            if (v.size() >= 2 && v.front() == '"' && v.back() == '"') {
                v = v.substr(1, v.size() - 2);
            }
            return v;
        }
    }
    return {};
}

// A non-negative finite number of seconds at the start of s.
bool Seconds(const std::string& s, double* out)
{
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (end == s.c_str() || !std::isfinite(v) || v < 0 || v > 1e6) {
        return false;
    }
    *out = v;
    return true;
}

bool Integer(const std::string& s, int64_t* out)
{
    char* end = nullptr;
    const long long v = std::strtoll(s.c_str(), &end, 10);
    if (end == s.c_str() || v < 0 || v > (1LL << 53)) {
        return false;
    }
    *out = v;
    return true;
}

int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

} // namespace

std::string HLS_ResolveUrl(const std::string& base, const std::string& ref)
{
    if (ref.find("://") != std::string::npos) {
        return ref;
    }
    const size_t scheme = base.find("://");
    if (scheme == std::string::npos) {
        return ref;
    }
    if (StartsWith(ref, "//")) {
        return base.substr(0, scheme + 1) + ref;
    }
    const size_t hostEnd = base.find('/', scheme + 3);
    const std::string origin = hostEnd == std::string::npos ? base : base.substr(0, hostEnd);
    if (!ref.empty() && ref[0] == '/') {
        return origin + ref;
    }
    std::string path = hostEnd == std::string::npos ? "/" : base.substr(hostEnd);
    const size_t query = path.find_first_of("?#");
    if (query != std::string::npos) {
        path.erase(query);
    }
    path.erase(path.rfind('/') + 1);
    return origin + path + ref;
}

bool HLS_ParseDateTime(const std::string& t, int64_t* ms)
{
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, consumed = 0;
    double sec = 0;
    if (std::sscanf(t.c_str(), "%4d-%2d-%2dT%2d:%2d:%lf%n", &y, &mo, &d, &h, &mi, &sec, &consumed) != 6 || mo < 1 ||
        mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || sec < 0 || sec >= 61 || y < 1970 || y > 9999) {
        return false;
    }
    int64_t offsetMin = 0;
    const char* rest = t.c_str() + consumed;
    if (*rest == '+' || *rest == '-') {
        int oh = 0, om = 0;
        if (std::sscanf(rest + 1, "%2d:%2d", &oh, &om) < 1 || oh > 23 || om > 59) {
            return false;
        }
        offsetMin = (*rest == '-' ? -1 : 1) * (oh * 60 + om);
    } else if (*rest != 'Z' && *rest != 'z' && *rest != '\0') {
        return false;
    }
    const int64_t days = DaysFromCivil(y, mo, d);
    *ms = ((days * 24 + h) * 60 + mi - offsetMin) * 60000 + static_cast<int64_t>(std::llround(sec * 1000));
    return true;
}

uint32_t HLS_ParsePlaylist(const char* text, size_t length, const std::string& baseUrl, HLS_PLAYLIST* out)
{
    *out = HLS_PLAYLIST{};
    if (!text || length == 0 || length > kHlsMaxPlaylistBytes) {
        return KORVALEN_ERR_HLS_PLAYLIST;
    }
    std::string all(text, length);
    if (StartsWith(all, "\xEF\xBB\xBF")) {
        all.erase(0, 3);
    }
    if (!StartsWith(all, "#EXTM3U")) {
        return KORVALEN_ERR_HLS_PLAYLIST;
    }
    double pendingDuration = -1;
    bool pendingVariant = false;
    uint64_t pendingBandwidth = 0;
    int64_t pendingUtc = 0;
    std::string initUrl;
    size_t at = 0;
    while (at < all.size()) {
        size_t end = all.find('\n', at);
        if (end == std::string::npos) {
            end = all.size();
        }
        std::string line = all.substr(at, end - at);
        at = end + 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        if (line[0] != '#') {
            if (pendingVariant) {
                out->variants.push_back({HLS_ResolveUrl(baseUrl, line), pendingBandwidth});
                out->master = true;
                pendingVariant = false;
            } else if (pendingDuration >= 0) {
                if (out->segments.size() >= kHlsMaxSegments) {
                    return KORVALEN_ERR_HLS_PLAYLIST;
                }
                HLS_SEGMENT s;
                s.url = HLS_ResolveUrl(baseUrl, line);
                s.initUrl = initUrl;
                s.start = out->total;
                s.duration = pendingDuration;
                s.sequence = out->mediaSequence + static_cast<int64_t>(out->segments.size());
                s.utcMs = pendingUtc;
                if (pendingUtc) {
                    pendingUtc += static_cast<int64_t>(std::llround(pendingDuration * 1000));
                }
                out->total += pendingDuration;
                out->segments.push_back(std::move(s));
                pendingDuration = -1;
            } else {
                return KORVALEN_ERR_HLS_PLAYLIST; // an address without its #EXTINF
            }
            continue;
        }
        if (StartsWith(line, "#EXTINF:")) {
            if (!Seconds(line.substr(8), &pendingDuration)) {
                return KORVALEN_ERR_HLS_PLAYLIST;
            }
        } else if (StartsWith(line, "#EXT-X-STREAM-INF:")) {
            pendingVariant = true;
            int64_t bw = 0;
            pendingBandwidth = Integer(Attribute(line.substr(18), "BANDWIDTH"), &bw) ? static_cast<uint64_t>(bw) : 0;
        } else if (StartsWith(line, "#EXT-X-TARGETDURATION:")) {
            if (!Seconds(line.substr(22), &out->targetDuration)) {
                return KORVALEN_ERR_HLS_PLAYLIST;
            }
        } else if (StartsWith(line, "#EXT-X-MEDIA-SEQUENCE:")) {
            if (!out->segments.empty() || !Integer(line.substr(22), &out->mediaSequence)) {
                return KORVALEN_ERR_HLS_PLAYLIST;
            }
        } else if (StartsWith(line, "#EXT-X-ENDLIST")) {
            out->ended = true;
        } else if (StartsWith(line, "#EXT-X-PLAYLIST-TYPE:")) {
            out->ended = out->ended || line.substr(21) == "VOD";
        } else if (StartsWith(line, "#EXT-X-MAP:")) {
            const std::string uri = Attribute(line.substr(11), "URI");
            if (uri.empty() || !Attribute(line.substr(11), "BYTERANGE").empty()) {
                return uri.empty() ? KORVALEN_ERR_HLS_PLAYLIST : KORVALEN_ERR_HLS_UNSUPPORTED;
            }
            initUrl = HLS_ResolveUrl(baseUrl, uri);
        } else if (StartsWith(line, "#EXT-X-PROGRAM-DATE-TIME:")) {
            if (!HLS_ParseDateTime(line.substr(25), &pendingUtc)) {
                return KORVALEN_ERR_HLS_PLAYLIST;
            }
        } else if (StartsWith(line, "#EXT-X-KEY:")) {
            if (Attribute(line.substr(11), "METHOD") != "NONE") {
                return KORVALEN_ERR_HLS_UNSUPPORTED;
            }
        } else if (StartsWith(line, "#EXT-X-BYTERANGE:")) {
            return KORVALEN_ERR_HLS_UNSUPPORTED;
        }
    }
    if (pendingVariant || pendingDuration >= 0 ||
        (out->master ? out->variants.empty() : out->segments.empty() && out->ended)) {
        return KORVALEN_ERR_HLS_PLAYLIST;
    }
    return KORVALEN_OK;
}

int64_t HLS_FindSegmentByTime(const HLS_PLAYLIST& p, double t)
{
    if (t < 0) {
        return -1;
    }
    for (size_t i = 0; i < p.segments.size(); ++i) {
        const HLS_SEGMENT& s = p.segments[i];
        if (t >= s.start && t < s.start + s.duration) {
            return static_cast<int64_t>(i);
        }
    }
    return -1;
}

int64_t HLS_FindSegmentByUtc(const HLS_PLAYLIST& p, int64_t utcMs)
{
    for (size_t i = 0; i < p.segments.size(); ++i) {
        const HLS_SEGMENT& s = p.segments[i];
        if (s.utcMs && utcMs >= s.utcMs && utcMs < s.utcMs + static_cast<int64_t>(std::llround(s.duration * 1000))) {
            return static_cast<int64_t>(i);
        }
    }
    return -1;
}
