#include "demux/ts_parser.h"

#include <cstring>

#include "korvalen_types.h"
#include "log/log.h"

namespace {

uint32_t CodecOfStreamType(uint8_t type)
{
    switch (type) {
    case 0x1B:
        return KORVALEN_CODEC_H264;
    case 0x24:
        return KORVALEN_CODEC_H265;
    case 0x0F:
        return KORVALEN_CODEC_AAC;
    case 0x03:
    case 0x04:
        return KORVALEN_CODEC_MP2;
    default:
        return KORVALEN_CODEC_NONE;
    }
}

bool IsVideo(uint32_t codec)
{
    return codec == KORVALEN_CODEC_H264 || codec == KORVALEN_CODEC_H265;
}

// Key frame: an IDR or parameter sets (H.264), an IRAP or parameter sets (H.265).
uint32_t FrameType(uint32_t codec, const uint8_t* d, uint32_t n)
{
    for (uint32_t i = 0; i + 3 < n; ++i) {
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
            uint8_t b = d[i + 3];
            if (codec == KORVALEN_CODEC_H264) {
                uint8_t t = b & 0x1F;
                if (t == 5 || t == 7) {
                    return 0;
                }
            } else {
                uint8_t t = (b >> 1) & 0x3F;
                if ((t >= 16 && t <= 21) || (t >= 32 && t <= 34)) {
                    return 0;
                }
            }
        }
    }
    return IsVideo(codec) ? 1 : 5;
}

TS_STREAM* Find(TS_PARSER* p, uint16_t pid)
{
    for (uint32_t i = 0; i < p->count; ++i) {
        if (p->streams[i].pid == pid) {
            return &p->streams[i];
        }
    }
    return nullptr;
}

// A section starts after the pointer field of a unit-start payload.
const uint8_t* Section(const uint8_t* pl, uint32_t n, uint32_t* len)
{
    if (n < 1 || pl[0] + 1u + 3u > n) {
        return nullptr;
    }
    const uint8_t* s = pl + 1 + pl[0];
    uint32_t room = n - 1 - pl[0];
    uint32_t sl = ((s[1] & 0x0F) << 8 | s[2]) + 3;
    *len = sl < room ? sl : room;
    return s;
}

void ParsePat(TS_PARSER* p, const uint8_t* pl, uint32_t n)
{
    uint32_t len = 0;
    const uint8_t* s = Section(pl, n, &len);
    if (!s || s[0] != 0x00 || len < 12) {
        return;
    }
    for (uint32_t i = 8; i + 4 <= len - 4; i += 4) {
        uint16_t program = static_cast<uint16_t>(s[i] << 8 | s[i + 1]);
        if (program != 0) {
            p->pmtPid = static_cast<uint16_t>((s[i + 2] & 0x1F) << 8 | s[i + 3]);
            return;
        }
    }
}

void ParsePmt(TS_PARSER* p, const uint8_t* pl, uint32_t n)
{
    uint32_t len = 0;
    const uint8_t* s = Section(pl, n, &len);
    if (!s || s[0] != 0x02 || len < 16) {
        return;
    }
    uint32_t infoLen = (s[10] & 0x0F) << 8 | s[11];
    for (uint32_t i = 12 + infoLen; i + 5 <= len - 4;) {
        uint8_t type = s[i];
        uint16_t pid = static_cast<uint16_t>((s[i + 1] & 0x1F) << 8 | s[i + 2]);
        uint32_t esInfo = (s[i + 3] & 0x0F) << 8 | s[i + 4];
        uint32_t codec = CodecOfStreamType(type);
        bool taken = false; // one stream per buffer
        for (uint32_t k = 0; k < p->count; ++k) {
            taken |= IsVideo(p->streams[k].codecType) == IsVideo(codec);
        }
        if (codec != KORVALEN_CODEC_NONE && !taken && !Find(p, pid) && p->count < kTsMaxStreams) {
            TS_STREAM& st = p->streams[p->count++];
            st = TS_STREAM{};
            st.pid = pid;
            st.codecType = codec;
            st.buf = IsVideo(codec) ? p->videoBuf : p->audioBuf;
            st.cap = IsVideo(codec) ? p->videoCap : p->audioCap;
        }
        i += 5 + esInfo;
    }
}

constexpr uint32_t kAdtsHeader = 7;
constexpr uint32_t kAacFrameSamples = 1024;
const uint32_t kAdtsRates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                 16000, 12000, 11025, 8000,  7350,  0,     0,     0};

// The next ADTS frame of the PES being split, one per call; false when the
// PES is used up (or holds no valid ADTS frame there).
bool NextAdts(TS_PARSER* p, TS_FRAME* f)
{
    TS_STREAM* st = p->splitting;
    const uint8_t* d = st->buf + p->splitAt;
    const uint32_t left = st->len - p->splitAt;
    if (left < kAdtsHeader || d[0] != 0xFF || (d[1] & 0xF0) != 0xF0) {
        p->splitting = nullptr;
        return false;
    }
    const uint32_t n = (static_cast<uint32_t>(d[3] & 0x03) << 11) | (static_cast<uint32_t>(d[4]) << 3) | (d[5] >> 5);
    if (n < kAdtsHeader || n > left) {
        p->splitting = nullptr;
        return false;
    }
    const uint32_t rate = kAdtsRates[(d[2] >> 2) & 0x0F];
    f->data = d;
    f->length = n;
    f->timestamp = st->pts + (rate ? static_cast<uint64_t>(p->splitCount) * kAacFrameSamples * 90000 / rate : 0);
    f->codecType = st->codecType;
    f->frameType = 5;
    p->splitAt += n;
    ++p->splitCount;
    if (p->splitAt >= st->len) {
        p->splitting = nullptr;
    }
    return true;
}

bool Publish(TS_PARSER* p, TS_STREAM* st, TS_FRAME* f)
{
    if (!st->open || st->len == 0) {
        st->open = false;
        return false;
    }
    if (st->codecType == KORVALEN_CODEC_AAC) {
        st->open = false;
        p->splitting = st;
        p->splitAt = 0;
        p->splitCount = 0;
        return NextAdts(p, f);
    }
    f->data = st->buf;
    f->length = st->len;
    f->timestamp = st->pts;
    f->codecType = st->codecType;
    f->frameType = FrameType(st->codecType, st->buf, st->len);
    st->open = false;
    return true;
}

} // namespace

void TS_Reset(TS_PARSER* p, uint8_t* videoBuf, uint32_t videoCap, uint8_t* audioBuf, uint32_t audioCap)
{
    *p = TS_PARSER{};
    p->videoBuf = videoBuf;
    p->videoCap = videoCap;
    p->audioBuf = audioBuf;
    p->audioCap = audioCap;
}

uint32_t TS_GetOneFrame(TS_PARSER* p, const uint8_t* data, uint32_t length, TS_FRAME* frame)
{
    if (p->splitting && NextAdts(p, frame)) {
        return KORVALEN_OK; // resume (and where) stays as it was
    }
    uint32_t at = p->resume ? p->resumeAt : 0;
    p->resume = false;
    while (at + kTsPacketSize <= length) {
        const uint8_t* pkt = data + at;
        if (pkt[0] != 0x47) {
            ++at; // lost sync: look for the next packet start
            continue;
        }
        const bool unitStart = pkt[1] & 0x40;
        const uint16_t pid = static_cast<uint16_t>((pkt[1] & 0x1F) << 8 | pkt[2]);
        const uint8_t afc = (pkt[3] >> 4) & 0x3;
        uint32_t off = 4;
        if (afc & 0x2) {
            off += 1u + pkt[4];
        }
        if (!(afc & 0x1) || off >= kTsPacketSize) {
            at += kTsPacketSize;
            continue;
        }
        const uint8_t* pl = pkt + off;
        uint32_t n = kTsPacketSize - off;
        if (pid == 0 && unitStart) {
            ParsePat(p, pl, n);
        } else if (pid == p->pmtPid && unitStart) {
            ParsePmt(p, pl, n);
        } else if (TS_STREAM* st = Find(p, pid)) {
            if (unitStart) {
                if (st->open && st->len) {
                    // The next PES begins: the one gathered is whole. This
                    // packet is read again on resume.
                    if (Publish(p, st, frame)) {
                        p->resume = true;
                        p->resumeAt = at;
                        return KORVALEN_OK;
                    }
                }
                if (n < 9 || pl[0] != 0 || pl[1] != 0 || pl[2] != 1) {
                    at += kTsPacketSize;
                    continue;
                }
                uint32_t pesLen = static_cast<uint32_t>(pl[4] << 8 | pl[5]);
                uint32_t hdr = 9u + pl[8];
                if ((pl[7] & 0x80) && n >= 14) {
                    st->pts = (static_cast<uint64_t>(pl[9] & 0x0E) << 29) | (static_cast<uint64_t>(pl[10]) << 22) |
                              (static_cast<uint64_t>(pl[11] & 0xFE) << 14) | (static_cast<uint64_t>(pl[12]) << 7) |
                              (pl[13] >> 1);
                }
                st->open = true;
                st->len = 0;
                st->pesLen = pesLen > hdr - 6 ? pesLen - (hdr - 6) : 0;
                if (hdr >= n) {
                    at += kTsPacketSize;
                    continue;
                }
                pl += hdr;
                n -= hdr;
            }
            if (st->open) {
                if (st->len + n > st->cap) {
                    KORVALEN_LOG(KORVALEN_LOG_WARN, "TS frame of pid %d larger than its buffer(%d), dropped", pid,
                                 st->cap);
                    st->open = false;
                    st->len = 0;
                    p->resume = at + kTsPacketSize < length;
                    p->resumeAt = at + kTsPacketSize;
                    return KORVALEN_ERR_INVALID_PARAM;
                }
                std::memcpy(st->buf + st->len, pl, n);
                st->len += n;
                if (st->pesLen && st->len >= st->pesLen) {
                    // The PES said how long it is: no need to wait for the next.
                    st->len = st->pesLen;
                    at += kTsPacketSize;
                    if (Publish(p, st, frame)) {
                        p->resume = at < length || p->splitting;
                        p->resumeAt = at;
                        return KORVALEN_OK;
                    }
                    continue;
                }
            }
        }
        at += kTsPacketSize;
    }
    return KORVALEN_ERR_NEED_MORE_DATA;
}

uint32_t TS_Flush(TS_PARSER* p, TS_FRAME* frame)
{
    if (p->splitting && NextAdts(p, frame)) {
        return KORVALEN_OK;
    }
    for (uint32_t i = 0; i < p->count; ++i) {
        if (Publish(p, &p->streams[i], frame)) {
            return KORVALEN_OK;
        }
    }
    return KORVALEN_ERR_NEED_MORE_DATA;
}
