// MP4 reader: reads the box tree once, builds one flat file-ordered sample
// index over all tracks, and delivers samples as Annex-B video frames or raw
// audio frames with 90 kHz time stamps.
#pragma once

#include <cstdint>
#include <cstdio>

constexpr uint32_t kMp4FrameBufferSize = 0x200000; // the caller's frame buffer
constexpr uint32_t kMp4MaxTracks = 16;
constexpr uint32_t kMp4MaxSamples = 4u << 20;    // index entries kept at most
constexpr uint32_t kMp4MaxMoovSize = 256u << 20; // a larger "moov" is refused

// Parser read modes.
enum Mp4ReadMode : uint32_t {
    MP4_READ_ANY = 0,    // next sample of any track, in file order
    MP4_READ_KEY = 1,    // next key sample
    MP4_READ_VIDEO = 2,  // next sample of the video track
    MP4_READ_MARKED = 3, // next video sample that is key or carries the private SEI mark
};

// One "stsd" entry. Pointers reach into the reader's copy of "moov".
struct Mp4SampleEntry {
    uint32_t size = 0;
    uint32_t type = 0; // four characters, big-endian
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t depth = 0;
    bool hasAvcC = false;
    uint8_t configurationVersion = 0;
    uint8_t profile = 0;
    uint8_t lengthSizeMinusOne = 0;
    const uint8_t* sps = nullptr; // first SPS
    uint16_t spsLength = 0;
    const uint8_t* pps = nullptr; // first PPS
    uint16_t ppsLength = 0;
};

// A table of big-endian 32-bit words (entries of entryWords words each).
struct Mp4Table {
    const uint8_t* data = nullptr;
    uint32_t count = 0;
};

struct Mp4Track {
    uint32_t trackId = 0;
    uint32_t timescale = 0; // "mdhd"
    uint64_t duration = 0;
    uint16_t language = 0;
    uint32_t handler = 0; // "vide", "soun", ...
    Mp4SampleEntry entry; // the first sample description
    uint32_t entryCount = 0;
    Mp4Table stts; // pairs (count, delta)
    Mp4Table stss; // 1-based sync sample numbers
    Mp4Table stsc; // triples, read but not used by the index
    uint32_t constantSize = 0;
    Mp4Table sizes; // "stsz" table (count = sample count)
    uint32_t sampleCount = 0;
    uint32_t sizeCursor = 0;
    Mp4Table chunks; // 32-bit chunk offsets
    uint32_t chunkCursor = 0;
    uint32_t syncCursor = 0; // next "stss" entry not consumed
};

struct Mp4Sample {
    uint64_t offset;
    uint32_t size;
    uint32_t track;
    uint32_t key;
    uint32_t number;
    int32_t chunk; // -1 when the sample does not begin a chunk
    uint64_t timeStamp;
};

struct Mp4Info {
    uint32_t timescale = 0; // "mvhd"
    uint32_t duration = 0;
    uint64_t creationTime = 0; // seconds since 1904, from "mvhd"
    Mp4Track tracks[kMp4MaxTracks];
    uint32_t trackCount = 0;
    Mp4Sample* samples = nullptr;
    uint32_t sampleCount = 0;
    uint32_t sampleCapacity = 0;
    uint32_t videoTrack = 0;
    uint64_t mdatStart = 0;
    uint64_t mdatEnd = 0;
    uint32_t lastTrack = 0;
    uint8_t started = 0;
    uint32_t cursor = 0;
    uint64_t clock = 0;
    uint32_t frameStep = 0;
    uint32_t currentSecond = 0;
    uint64_t fileLength = 0;
    uint8_t* moov = nullptr; // the box tree's bytes, which the tables point into
    uint32_t moovSize = 0;
};

struct Mp4Frame {
    uint8_t* buffer = nullptr; // the caller's, kMp4FrameBufferSize bytes
    uint32_t length = 0;
    uint32_t payloadType = 0;
    uint32_t frameType = 0;
    uint64_t timeStamp = 0;
};

Mp4Info* MP4_CreateMp4Parser(FILE* file, uint32_t flag);
void MP4_DestroyMp4Parser(Mp4Info* info);
uint32_t MP4_GetMp4Info(const Mp4Info* info, uint32_t* frameRate, uint32_t* totalSeconds);
uint32_t MP4_GetOneFrameData(FILE* file, Mp4Info* info, uint32_t readMode, Mp4Frame* frame);
uint32_t MP4_MakeOneFrame(FILE* file, Mp4Info* info, const Mp4Sample* sample, Mp4Frame* frame);
uint32_t MP4_SetPlayTime(FILE* file, Mp4Info* info, uint32_t seconds, uint32_t framesPerSecond);
uint32_t MP4_GetCurSampleIndex(const Mp4Info* info, uint32_t* seconds);

// The read-mode-3 test on an assembled Annex-B frame that is not a key frame:
// 1 when it carries the private SEI mark (H.264 SEI whose first payload byte
// is '!'), 0 when a slice comes first or nothing decides, 2 for a payload
// other than H.264 and H.265 (H.265 frames are never marked).
uint32_t MP4_FrameMarked(uint32_t payloadType, const uint8_t* data, uint32_t length);

// Length-prefixed NAL units to Annex-B, in place: each 4-byte length becomes
// a start code (4-byte lengths are assumed; a length past the end stops).
void MP4_ToAnnexB(uint8_t* data, uint32_t length);
// True when data is wholly a chain of 4-byte-length-prefixed units and does
// not already begin with a start code.
bool MP4_LengthPrefixed(const uint8_t* data, uint32_t length);

// Box tree (mp4_boxes.cpp): the top-level walk that fills info's tracks,
// movie header and media data range. 0 or an error.
uint32_t MP4_ReadRootBoxes(FILE* file, Mp4Info* info);
// Sample index over the media data (mp4_index.cpp). 0, or 3 out of memory.
uint32_t MP4_BuildIndex(Mp4Info* info);

inline uint32_t MP4_Load32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

constexpr uint32_t MP4_Fourcc(const char (&s)[5])
{
    return static_cast<uint32_t>(static_cast<uint8_t>(s[0])) << 24 |
           static_cast<uint32_t>(static_cast<uint8_t>(s[1])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(s[2])) << 8 | static_cast<uint8_t>(s[3]);
}

#define MP4_BOX_LOG(level, ...) LOG_Write((level), "mp4_boxes", __LINE__, __VA_ARGS__)
#define MP4_LOG(level, ...)     LOG_Write((level), "mp4_parse", __LINE__, __VA_ARGS__)
