// The plain capture on a PulseAudio record stream of the default source.
// The server's chunks go into a ring of 16 blocks; the capture thread takes
// whole blocks out and hands them to the callback.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "audio/mic_capture.h"

struct pa_stream;

class CDsoundCapture : public CMicCapture {
public:
    ~CDsoundCapture() override;
    uint32_t CreateDec(uint32_t bitsPerSample, uint32_t sampleRate, uint32_t blockSize, uint32_t owner) override;
    void DestroyDec() override;
    void StopCapture() override;
    uint32_t StartCapture() override;

    uint32_t RingSize() const { return m_ringSize; }

protected:
    // Captured bytes on their way into the ring (on the sound device's
    // thread); the echo canceller works on them here.
    virtual void Captured(const uint8_t* data, uint32_t length);
    void PutRing(const uint8_t* data, uint32_t length);

    uint32_t m_rate = 0;
    uint32_t m_bits = 0;
    uint32_t m_blockSize = 0;

private:
    static void OnRead(pa_stream* stream, size_t bytes, void* self);
    static void OnState(pa_stream* stream, void* self);
    static void OnMoved(pa_stream* stream, void* self);
    bool SourceGone();
    void CaptureThread();
    uint32_t CaptureLoop();
    void ReleaseStream();

    pa_stream* m_stream = nullptr;
    uint8_t* m_ring = nullptr;
    uint32_t m_ringSize = 0;
    uint64_t m_written = 0; // bytes put into the ring since creation
    uint64_t m_read = 0;    // bytes taken out (or skipped)
    uint8_t* m_block = nullptr;
    std::mutex m_lock;
    std::condition_variable m_event;
    std::atomic<uint32_t> m_running{0};
    std::atomic<bool> m_lost{false};  // the source went away under the stream
    std::atomic<bool> m_moved{false}; // the server moved the stream to another source
    uint32_t m_sourceIndex = 0;
    std::thread m_thread;
};
