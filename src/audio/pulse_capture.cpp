#include "audio/pulse_capture.h"

#include <chrono>
#include <cstring>

#include <pulse/pulseaudio.h>

#include "audio/audio_device.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "report/report.h"

namespace {

constexpr uint32_t kOpTimeoutMs = 2000;
constexpr uint32_t kEventWaitMs = 500;

pa_sample_format_t CaptureFormat(uint32_t bits)
{
    return bits == 8 ? PA_SAMPLE_U8 : bits == 16 ? PA_SAMPLE_S16LE : PA_SAMPLE_INVALID;
}

} // namespace

CDsoundCapture::~CDsoundCapture()
{
    DestroyDec();
}

void CDsoundCapture::OnRead(pa_stream* stream, size_t, void* self)
{
    auto* c = static_cast<CDsoundCapture*>(self);
    const void* data = nullptr;
    size_t n = 0;
    while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &n) == 0 && n > 0) {
        if (data) { // null data with a length is a hole: nothing to keep
            c->Captured(static_cast<const uint8_t*>(data), static_cast<uint32_t>(n));
        }
        pa_stream_drop(stream);
    }
}

void CDsoundCapture::OnState(pa_stream* stream, void* self)
{
    auto* c = static_cast<CDsoundCapture*>(self);
    if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) {
        c->m_lost = true; // the source (or the server) went away
        c->m_event.notify_one();
    }
    pa_threaded_mainloop_signal(Audio_Mainloop(), 0);
}

void CDsoundCapture::OnMoved(pa_stream*, void* self)
{
    auto* c = static_cast<CDsoundCapture*>(self);
    c->m_moved = true;
    c->m_event.notify_one();
}

// After a move: an unplugged microphone makes the server move its streams
// to another source, a new default source does so too. Only the first means
// the microphone is gone.
bool CDsoundCapture::SourceGone()
{
    AudioLoopLock lock;
    struct Query {
        bool done = false;
        bool found = false;
    } q;
    pa_operation* op = pa_context_get_source_info_by_index(
        Audio_Context(), m_sourceIndex,
        [](pa_context*, const pa_source_info* info, int eol, void* user) {
            auto* r = static_cast<Query*>(user);
            r->found = r->found || (!eol && info);
            r->done = r->done || eol;
            pa_threaded_mainloop_signal(Audio_Mainloop(), 0);
        },
        &q);
    if (!op) {
        return true;
    }
    Audio_WaitLocked([&] { return q.done || pa_operation_get_state(op) != PA_OPERATION_RUNNING; }, kOpTimeoutMs);
    pa_operation_unref(op);
    if (q.found) {
        m_sourceIndex = pa_stream_get_device_index(m_stream);
    }
    return !q.found;
}

void CDsoundCapture::Captured(const uint8_t* data, uint32_t length)
{
    PutRing(data, length);
}

void CDsoundCapture::PutRing(const uint8_t* data, uint32_t length)
{
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (length > m_ringSize) { // only the newest ring-full matters
            data += length - m_ringSize;
            length = m_ringSize;
        }
        uint32_t at = static_cast<uint32_t>(m_written % m_ringSize);
        uint32_t first = std::min(length, m_ringSize - at);
        std::memcpy(m_ring + at, data, first);
        std::memcpy(m_ring, data + first, length - first);
        m_written += length;
        if (m_written - m_read > m_ringSize) {
            m_read = m_written - m_ringSize; // a looping buffer overwrites its oldest bytes
        }
    }
    m_event.notify_one();
}

uint32_t CDsoundCapture::CreateDec(uint32_t bitsPerSample, uint32_t sampleRate, uint32_t blockSize, uint32_t owner)
{
    if (!Audio_EnsureDevice()) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "the number of waveform-audio input devices present in the system is zero.");
        return AUDIO_ERR_NO_MIC;
    }
    if (blockSize == 0 || CaptureFormat(bitsPerSample) == PA_SAMPLE_INVALID || sampleRate == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DirectSoundCaptureCreate fail, syserror(0x%x)", PA_ERR_INVALID);
        return 1;
    }
    m_ringSize = kAudioCaptureBlocks * blockSize;
    m_ring = static_cast<uint8_t*>(QMX_HeapMalloc(m_ringSize));
    m_block = static_cast<uint8_t*>(QMX_HeapMalloc(blockSize));
    if (!m_ring || !m_block) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CreateCaptureBuffer fail, syserror(0x%x)", KORVALEN_ERR_NO_MEMORY);
        DestroyDec();
        return 1;
    }
    m_written = m_read = 0;
    m_rate = sampleRate;
    m_bits = bitsPerSample;
    m_blockSize = blockSize;

    AudioLoopLock lock;
    pa_sample_spec sampleSpec{CaptureFormat(bitsPerSample), sampleRate, 1};
    m_stream = pa_stream_new(Audio_Context(), "Korvalen microphone", &sampleSpec, nullptr);
    if (!m_stream) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DirectSoundCaptureCreate fail, syserror(0x%x)",
                     pa_context_errno(Audio_Context()));
        QMX_HeapFree(m_ring);
        QMX_HeapFree(m_block);
        m_ring = m_block = nullptr;
        return 1;
    }
    pa_stream_set_read_callback(m_stream, &CDsoundCapture::OnRead, this);
    pa_stream_set_state_callback(m_stream, &CDsoundCapture::OnState, this);
    pa_stream_set_moved_callback(m_stream, &CDsoundCapture::OnMoved, this);
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.fragsize = blockSize; // the server hands over about one block at a time
    auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_START_CORKED | PA_STREAM_ADJUST_LATENCY);
    if (pa_stream_connect_record(m_stream, nullptr, &attr, flags) == 0) {
        Audio_WaitLocked(
            [&] {
                pa_stream_state_t s = pa_stream_get_state(m_stream);
                return s == PA_STREAM_READY || !PA_STREAM_IS_GOOD(s);
            },
            kOpTimeoutMs);
    }
    if (pa_stream_get_state(m_stream) != PA_STREAM_READY) {
        int code = pa_context_errno(Audio_Context());
        pa_stream_state_t s = pa_stream_get_state(m_stream);
        ReleaseStream();
        if (code == PA_ERR_NOENTITY || s == PA_STREAM_FAILED) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "the number of waveform-audio input devices present in the system is zero.");
            QMX_HeapFree(m_ring);
            QMX_HeapFree(m_block);
            m_ring = m_block = nullptr;
            return AUDIO_ERR_NO_MIC;
        }
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CreateCaptureBuffer fail, syserror(0x%x)", code);
        QMX_HeapFree(m_ring);
        QMX_HeapFree(m_block);
        m_ring = m_block = nullptr;
        return 1;
    }
    m_lost = false;
    m_moved = false;
    m_sourceIndex = pa_stream_get_device_index(m_stream);
    m_owner = owner;
    return KORVALEN_OK;
}

void CDsoundCapture::ReleaseStream()
{
    // The main loop is locked by the caller.
    if (m_stream) {
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        pa_stream_set_moved_callback(m_stream, nullptr, nullptr);
        pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }
}

uint32_t CDsoundCapture::StartCapture()
{
    if (!m_stream) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundCapture::StartCapture fail, m_pstBuffer is NULL");
        return KORVALEN_ERR_PORT;
    }
    {
        AudioLoopLock lock;
        pa_operation* op = pa_stream_cork(m_stream, 0, nullptr, nullptr);
        if (!op) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Start fail, syserror(0x%x)", pa_context_errno(Audio_Context()));
            return 1;
        }
        pa_operation_unref(op);
    }
    m_running = 1;
    try {
        m_thread = std::thread(&CDsoundCapture::CaptureThread, this);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundCapture::StartCapture failed, KTFW_SDK_thr_create SoundPlay failed");
        m_running = 0;
        AudioLoopLock lock;
        if (pa_operation* op = pa_stream_cork(m_stream, 1, nullptr, nullptr)) {
            pa_operation_unref(op);
        }
        return 1;
    }
    return KORVALEN_OK;
}

void CDsoundCapture::StopCapture()
{
    m_running = 0;
    m_event.notify_one();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_stream && Audio_Mainloop()) {
        AudioLoopLock lock;
        pa_operation* op = pa_stream_cork(m_stream, 1, nullptr, nullptr);
        if (op) {
            pa_operation_unref(op);
        } else if (PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream))) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "Stop fail, syserror(0x%x)", pa_context_errno(Audio_Context()));
        }
    }
}

void CDsoundCapture::DestroyDec()
{
    StopCapture();
    if (m_stream && Audio_Mainloop()) {
        AudioLoopLock lock;
        ReleaseStream();
    }
    m_stream = nullptr;
    QMX_HeapFree(m_ring);
    QMX_HeapFree(m_block);
    m_ring = m_block = nullptr;
}

void CDsoundCapture::CaptureThread()
{
    try {
        CaptureLoop();
    } catch (...) {
        // A fault in the caller's callback ends the capture quietly.
    }
}

uint32_t CDsoundCapture::CaptureLoop()
{
    if (!m_ring) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Capture dev is null");
        return AUDIO_ERR_NO_CAPTURE_DEVICE;
    }
    std::unique_lock<std::mutex> lock(m_lock);
    while (m_running) {
        if (m_moved.exchange(false)) {
            lock.unlock();
            if (SourceGone()) {
                m_lost = true;
            }
            lock.lock();
        }
        if (m_lost) {
            lock.unlock();
            uint32_t err = Report_Send(m_owner, kReportMicLost, AUDIO_ERR_NO_MIC, 0, nullptr);
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_WARN, "CCoreAudioCapture::OnMicDisConnect warm, send report fail, error(%d)",
                             err);
            }
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CaptureThread fail, ulWaveinDevNums not exist");
            return AUDIO_ERR_NO_MIC;
        }
        m_event.wait_for(lock, std::chrono::milliseconds(kEventWaitMs),
                         [&] { return !m_running || m_lost || m_moved || m_written - m_read >= m_blockSize; });
        if (m_gain.load() < 1) {
            m_read = m_written; // muted by volume 0: what was heard is not kept for later
            continue;
        }
        while (m_running && m_written - m_read >= m_blockSize) {
            uint32_t at = static_cast<uint32_t>(m_read % m_ringSize);
            uint32_t first = std::min(m_blockSize, m_ringSize - at);
            std::memcpy(m_block, m_ring + at, first);
            std::memcpy(m_block + first, m_ring, m_blockSize - first);
            m_read += m_blockSize;
            AUDIO_CAPTURE_CB cb = m_callback.load();
            void* ctx = m_context.load();
            lock.unlock();
            if (cb) {
                cb(m_block, m_blockSize, ctx);
            }
            lock.lock();
        }
    }
    return KORVALEN_OK;
}
