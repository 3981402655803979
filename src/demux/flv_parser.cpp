#include "demux/flv_parser.h"

#include <cstring>

#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint8_t kTagAudio = 8;
constexpr uint8_t kTagVideo = 9;
constexpr uint8_t kTagScript = 18;
constexpr uint8_t kCodecAvc = 7;
constexpr uint8_t kSoundAac = 10;
constexpr uint8_t kSoundG711A = 7;
constexpr uint8_t kSoundG711U = 8;
constexpr uint32_t kAdtsHeader = 7;
constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};

uint32_t Be(const uint8_t* p, uint32_t n)
{
    uint32_t v = 0;
    for (uint32_t i = 0; i < n; ++i) {
        v = v << 8 | p[i];
    }
    return v;
}

bool KnownTag(uint8_t type)
{
    type &= 0x1F; // the filter bit is not ours to judge
    return type == kTagAudio || type == kTagVideo || type == kTagScript;
}

// Appends a start code and one NAL unit; false when it would not fit.
bool PutNal(uint8_t* out, uint32_t cap, uint32_t* len, const uint8_t* nal, uint32_t n)
{
    if (n > cap || *len > cap - n || cap - n - *len < sizeof kStartCode) {
        return false;
    }
    std::memcpy(out + *len, kStartCode, sizeof kStartCode);
    std::memcpy(out + *len + sizeof kStartCode, nal, n);
    *len += static_cast<uint32_t>(sizeof kStartCode) + n;
    return true;
}

// AVCDecoderConfigurationRecord: keep the SPS and PPS in Annex B form for
// the key frames that follow.
uint32_t TakeAvcConfig(FLV_PARSER* p, const uint8_t* c, uint32_t n)
{
    if (n < 6) {
        return 1;
    }
    p->lengthSize = (c[4] & 3u) + 1;
    uint32_t at = 5, len = 0;
    for (int set = 0; set < 2; ++set) {
        if (at >= n) {
            return 1;
        }
        uint32_t count = set == 0 ? (c[at] & 0x1Fu) : c[at];
        ++at;
        for (uint32_t i = 0; i < count; ++i) {
            if (n - at < 2 || n - at - 2 < Be(c + at, 2)) {
                return 1;
            }
            uint32_t size = Be(c + at, 2);
            if (!PutNal(p->params, kFlvParamsMax, &len, c + at + 2, size)) {
                return 1;
            }
            at += 2 + size;
        }
    }
    p->paramsLen = len;
    return KORVALEN_OK;
}

uint32_t VideoTag(FLV_PARSER* p, const uint8_t* b, uint32_t n, FLV_FRAME* frame)
{
    if (n < 5 || (b[0] & 0x0F) != kCodecAvc) {
        return KORVALEN_ERR_NEED_MORE_DATA; // not a codec we decode: skipped
    }
    const bool key = (b[0] >> 4) == 1;
    if (b[1] == 0) {
        return TakeAvcConfig(p, b + 5, n - 5) == KORVALEN_OK ? KORVALEN_ERR_NEED_MORE_DATA : 1;
    }
    if (b[1] != 1) {
        return KORVALEN_ERR_NEED_MORE_DATA; // end of sequence
    }
    uint32_t len = 0;
    bool inBandParams = false;
    for (uint32_t at = 5; at < n;) {
        if (n - at < p->lengthSize) {
            return 1;
        }
        uint32_t size = Be(b + at, p->lengthSize);
        at += p->lengthSize;
        if (size > n - at) {
            return 1;
        }
        if (size > 0 && (b[at] & 0x1F) == 7) {
            inBandParams = true;
        }
        at += size;
    }
    if (key && !inBandParams && p->paramsLen) {
        if (p->paramsLen > p->videoCap) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        std::memcpy(p->videoOut, p->params, p->paramsLen);
        len = p->paramsLen;
    }
    for (uint32_t at = 5; at < n;) {
        uint32_t size = Be(b + at, p->lengthSize);
        at += p->lengthSize;
        if (!PutNal(p->videoOut, p->videoCap, &len, b + at, size)) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        at += size;
    }
    if (len == 0) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    *frame = FLV_FRAME{p->videoOut, len, p->tagTime, KORVALEN_CODEC_H264, key ? 0u : 1u};
    return KORVALEN_OK;
}

uint32_t AudioTag(FLV_PARSER* p, const uint8_t* b, uint32_t n, FLV_FRAME* frame)
{
    if (n < 2) {
        return 1;
    }
    const uint8_t format = b[0] >> 4;
    if (format == kSoundG711A || format == kSoundG711U) {
        if (n - 1 > p->audioCap) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        std::memcpy(p->audioOut, b + 1, n - 1);
        uint32_t codec = format == kSoundG711A ? KORVALEN_CODEC_G711A : KORVALEN_CODEC_G711U;
        *frame = FLV_FRAME{p->audioOut, n - 1, p->tagTime, codec, 5};
        return KORVALEN_OK;
    }
    if (format != kSoundAac) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (b[1] == 0) { // AudioSpecificConfig
        if (n < 4) {
            return 1;
        }
        uint8_t object = b[2] >> 3;
        p->aacProfile = static_cast<uint8_t>(object == 0 ? 0 : (object - 1) & 3);
        p->aacRateIndex = static_cast<uint8_t>(((b[2] & 7) << 1) | (b[3] >> 7));
        p->aacChannels = static_cast<uint8_t>((b[3] >> 3) & 0x0F);
        p->aacConfigured = true;
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (!p->aacConfigured) {
        return KORVALEN_ERR_NEED_MORE_DATA; // raw frames mean nothing without their configuration
    }
    const uint32_t raw = n - 2;
    const uint32_t total = raw + kAdtsHeader;
    if (total > p->audioCap || total > 0x1FFF) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint8_t* o = p->audioOut;
    o[0] = 0xFF;
    o[1] = 0xF1; // MPEG-4, no CRC
    o[2] = static_cast<uint8_t>(p->aacProfile << 6 | (p->aacRateIndex & 0x0F) << 2 | (p->aacChannels >> 2 & 1));
    o[3] = static_cast<uint8_t>((p->aacChannels & 3) << 6 | total >> 11);
    o[4] = static_cast<uint8_t>(total >> 3);
    o[5] = static_cast<uint8_t>((total & 7) << 5 | 0x1F);
    o[6] = 0xFC;
    std::memcpy(o + kAdtsHeader, b + 2, raw);
    *frame = FLV_FRAME{o, total, p->tagTime, KORVALEN_CODEC_AAC, 5};
    return KORVALEN_OK;
}

// A whole tag body is in p->tag.
uint32_t FinishTag(FLV_PARSER* p, FLV_FRAME* frame)
{
    switch (p->tagType & 0x1F) {
    case kTagVideo:
        return VideoTag(p, p->tag, p->bodyLen, frame);
    case kTagAudio:
        return AudioTag(p, p->tag, p->bodyLen, frame);
    default:
        return KORVALEN_ERR_NEED_MORE_DATA; // script data: nothing to play
    }
}

} // namespace

void FLV_Reset(FLV_PARSER* p, uint8_t* tagBuf, uint8_t* videoOut, uint32_t videoCap, uint8_t* audioOut,
               uint32_t audioCap)
{
    *p = FLV_PARSER{};
    p->tag = tagBuf;
    p->videoOut = videoOut;
    p->videoCap = videoCap;
    p->audioOut = audioOut;
    p->audioCap = audioCap;
}

bool FLV_InsideTag(const FLV_PARSER* p)
{
    return p && p->started && (p->phase != FLV_PHASE_TAG_HEADER || p->headLen != 0 || p->skipAfter != 0);
}

bool FLV_IsFlvData(const FLV_PARSER* p, const uint8_t* data, uint32_t length)
{
    if (!data || length == 0) {
        return false;
    }
    if (length >= 4 && data[0] == 'F' && data[1] == 'L' && data[2] == 'V' && data[3] == 1) {
        return true;
    }
    return FLV_InsideTag(p) || (p && p->started && KnownTag(data[0]));
}

uint32_t FLV_UnpacketFlvData(FLV_PARSER* p, const uint8_t* data, uint32_t length, FLV_FRAME* frame)
{
    if (!p || !p->tag || !data || !frame) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint32_t at = p->resume ? p->resumeAt : 0;
    p->resume = false;
    // A chunk that opens with a stream header starts over, even inside a
    // tag: a sender that reconnects begins with one, a body rarely does.
    if (at == 0 && length >= 4 && std::memcmp(data, "FLV\x01", 4) == 0) {
        p->phase = FLV_PHASE_FILE_HEADER;
        p->headLen = 0;
        p->started = true;
    }
    if (!p->started) {
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    while (at < length) {
        if (p->skipAfter) {
            uint32_t n = length - at < p->skipAfter ? length - at : p->skipAfter;
            p->skipAfter -= n;
            at += n;
            continue;
        }
        switch (p->phase) {
        case FLV_PHASE_FILE_HEADER: {
            p->head[p->headLen++] = data[at++];
            if (p->headLen == 9) {
                uint32_t headerSize = Be(p->head + 5, 4);
                // The rest of the header (if it says it is longer) and the
                // first previous-tag size.
                p->skipAfter = (headerSize > 9 && headerSize < 0x10000 ? headerSize - 9 : 0) + 4;
                p->phase = FLV_PHASE_TAG_HEADER;
                p->headLen = 0;
            }
            break;
        }
        case FLV_PHASE_TAG_HEADER: {
            p->head[p->headLen++] = data[at++];
            if (p->headLen < 11) {
                break;
            }
            p->headLen = 0;
            p->tagType = p->head[0];
            p->bodyLen = Be(p->head + 1, 3);
            p->tagTime = Be(p->head + 4, 3) | static_cast<uint32_t>(p->head[7]) << 24;
            p->have = 0;
            if (!KnownTag(p->tagType)) {
                // Lost step with the tag stream: wait for a new header.
                KORVALEN_LOG(KORVALEN_LOG_WARN, "FLV tag type %u unknown, waiting for a stream header", p->tagType);
                p->started = false;
                return 1;
            }
            p->phase = p->bodyLen > kFlvTagMax ? FLV_PHASE_SKIP : FLV_PHASE_BODY;
            if (p->bodyLen == 0) {
                p->phase = FLV_PHASE_TAG_HEADER;
                p->skipAfter = 4;
            }
            break;
        }
        case FLV_PHASE_BODY:
        case FLV_PHASE_SKIP: {
            uint32_t n = length - at < p->bodyLen - p->have ? length - at : p->bodyLen - p->have;
            if (p->phase == FLV_PHASE_BODY) {
                std::memcpy(p->tag + p->have, data + at, n);
            }
            p->have += n;
            at += n;
            if (p->have < p->bodyLen) {
                break;
            }
            bool oversize = p->phase == FLV_PHASE_SKIP;
            p->phase = FLV_PHASE_TAG_HEADER;
            p->skipAfter = 4;
            if (oversize) {
                return KORVALEN_ERR_INVALID_PARAM;
            }
            uint32_t err = FinishTag(p, frame);
            if (err == KORVALEN_ERR_NEED_MORE_DATA) {
                break;
            }
            // A frame (or a bad tag) stops here; the rest of the chunk waits.
            p->resume = at < length;
            p->resumeAt = at;
            return err;
        }
        default:
            return KORVALEN_ERR_INVALID_PARAM;
        }
    }
    return KORVALEN_ERR_NEED_MORE_DATA;
}
