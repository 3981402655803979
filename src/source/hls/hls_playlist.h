// HLS playlists: a master playlist (variants) or a media playlist (segments
// with their durations, init sections and program date-times), read from
// the text a server sent. Only what playback, seeking and the cache need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct HLS_SEGMENT {
    std::string url;      // absolute
    std::string initUrl;  // fMP4 init section (EXT-X-MAP), absolute; empty for MPEG-TS
    double start = 0;     // seconds from the playlist's first segment
    double duration = 0;  // seconds
    int64_t sequence = 0; // media sequence number
    int64_t utcMs = 0;    // program date-time in ms since 1970, 0 when not given
};

struct HLS_VARIANT {
    std::string url;
    uint64_t bandwidth = 0;
};

struct HLS_PLAYLIST {
    bool master = false;
    std::vector<HLS_VARIANT> variants;
    std::vector<HLS_SEGMENT> segments;
    double targetDuration = 0;
    int64_t mediaSequence = 0;
    bool ended = false; // EXT-X-ENDLIST or a VOD playlist: nothing will be added
    double total = 0;   // sum of the segment durations
};

// Longest playlist text taken and most segments kept.
constexpr size_t kHlsMaxPlaylistBytes = 4u << 20;
constexpr size_t kHlsMaxSegments = 100000;

// Parses text relative to the playlist's own address baseUrl. 0, 1798 for
// text that is not a well-formed playlist, 1799 for encrypted or byte-range
// media.
uint32_t HLS_ParsePlaylist(const char* text, size_t length, const std::string& baseUrl, HLS_PLAYLIST* out);

// An address relative to base, as a browser resolves it (absolute, "/path",
// "//host/path", or relative to base's folder; query kept).
std::string HLS_ResolveUrl(const std::string& base, const std::string& ref);

// ISO 8601 date-time ("2026-11-22T10:00:00.500Z", offsets allowed) in ms
// since 1970; false when it is not one.
bool HLS_ParseDateTime(const std::string& text, int64_t* ms);

// Index of the segment holding second t (from the first segment), or -1.
int64_t HLS_FindSegmentByTime(const HLS_PLAYLIST& p, double t);
// Index of the segment whose program date-time span holds utcMs, or -1.
int64_t HLS_FindSegmentByUtc(const HLS_PLAYLIST& p, int64_t utcMs);
