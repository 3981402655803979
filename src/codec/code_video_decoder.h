// Video decoder back ends over libavcodec: the software decoder and the GPU
// decoder (a libavcodec hardware decoder on the probed device).
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
}

class CVideoDecoder {
public:
    CVideoDecoder() = default;
    CVideoDecoder(const CVideoDecoder&) = delete;
    CVideoDecoder& operator=(const CVideoDecoder&) = delete;
    virtual ~CVideoDecoder();

    // threads: libavcodec frame+slice threads; lowDelay forces one thread and
    // no output delay. Returns 0 or a negative AVERROR.
    int Open(AVCodecID id, int threads, bool lowDelay);
    // Sends one access unit (data null: drain) and takes at most one picture
    // into Picture(). 1 = picture, 0 = none yet, negative = AVERROR.
    int Decode(const uint8_t* data, uint32_t length, int64_t pts);
    // The last picture; valid until a later Decode returns a new one.
    AVFrame* Picture() { return m_frame; }
    virtual bool IsGpu() const { return false; }

protected:
    // Back-end set-up of the context before it is opened.
    virtual int Configure(AVCodecContext*) { return 0; }

private:
    int Receive();

    AVCodecContext* m_ctx = nullptr;
    AVPacket* m_pkt = nullptr;
    AVFrame* m_frame = nullptr;
    AVFrame* m_next = nullptr;
    bool m_draining = false;
};

class CSoftVideoDecoder : public CVideoDecoder {};

class CGpuVideoDecoder : public CVideoDecoder {
public:
    bool IsGpu() const override { return true; }

protected:
    int Configure(AVCodecContext* ctx) override;
};
