// Hand-made RTP packets and a pair of stream records to feed them to.
#pragma once

#include <gtest/gtest.h>

#include "rtp_peer.h"

namespace rtp_packets {

using rtp_peer::Bytes;

struct RtpOpts {
    bool marker = false;
    uint8_t csrcs = 0;
    Bytes ext; // extension body, whole 32-bit words
    uint8_t version = 2;
};

inline RtpOpts Opts(bool marker, uint8_t csrcs = 0, Bytes ext = {})
{
    RtpOpts o;
    o.marker = marker;
    o.csrcs = csrcs;
    o.ext = std::move(ext);
    return o;
}

inline RtpOpts Marked()
{
    return Opts(true);
}

inline Bytes Rtp(uint8_t pt, uint16_t seq, const Bytes& payload, RtpOpts o = {}, uint32_t ts = 9000)
{
    Bytes p(12);
    p[0] = static_cast<uint8_t>((o.version << 6) | (o.ext.empty() ? 0 : 0x10) | o.csrcs);
    p[1] = static_cast<uint8_t>((o.marker ? 0x80 : 0) | pt);
    p[2] = static_cast<uint8_t>(seq >> 8);
    p[3] = static_cast<uint8_t>(seq);
    for (int i = 0; i < 4; ++i) {
        p[4 + i] = static_cast<uint8_t>(ts >> (24 - 8 * i));
        p[8 + i] = static_cast<uint8_t>(i + 1); // SSRC
    }
    p.insert(p.end(), o.csrcs * 4u, 0xCC);
    if (!o.ext.empty()) {
        const size_t words = o.ext.size() / 4;
        p.insert(p.end(), {0xBE, 0xDE, static_cast<uint8_t>(words >> 8), static_cast<uint8_t>(words)});
        p.insert(p.end(), o.ext.begin(), o.ext.end());
    }
    p.insert(p.end(), payload.begin(), payload.end());
    return p;
}

inline Bytes Rtp(uint8_t pt, uint16_t seq, const Bytes& payload, bool marker, uint8_t version = 2)
{
    RtpOpts o = Opts(marker);
    o.version = version;
    return Rtp(pt, seq, payload, o);
}

inline Bytes Filled(size_t n, uint8_t first, uint8_t fill = 0x5A)
{
    Bytes b(n, fill);
    b[0] = first;
    return b;
}

inline Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

const Bytes kSc = {0, 0, 0, 1};

// A port's two stream records with their real buffer sizes.
struct Depacketizer : ::testing::Test {
    Bytes videoBuf = Bytes(kRtpVideoFrameMax);
    Bytes audioBuf = Bytes(kRtpAudioFrameMax);
    RTP_STREAM_INFO video, audio;
    RTP_PAYLOAD_TABLE custom{};
    RTP_AAC_CONFIG aac{1, 11, 1}; // AAC LC, 8 kHz, mono
    RTP_STREAM_INFO* done = nullptr;

    void SetUp() override
    {
        RTP_InitStream(&video, videoBuf.data(), kRtpVideoFrameMax);
        RTP_InitStream(&audio, audioBuf.data(), kRtpAudioFrameMax);
    }
    uint32_t Feed(const Bytes& p)
    {
        return RTP_SpellFrame(p.data(), static_cast<uint32_t>(p.size()), &custom, &aac, &video, &audio, &done);
    }
    static Bytes Frame(const RTP_STREAM_INFO& s) { return Bytes(s.frame, s.frame + s.frameLen); }
};

} // namespace rtp_packets
