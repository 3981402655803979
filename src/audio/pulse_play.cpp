#include "audio/pulse_play.h"

#include <algorithm>
#include <cmath>

#include <pulse/pulseaudio.h>

#include "audio/audio_device.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kRingSlots = 20;
constexpr uint32_t kDeviceBlocks = 4; // blocks queued in the server at most
constexpr uint32_t kOpTimeoutMs = 2000;
constexpr uint32_t kUnderrunSleepMs = 40;
constexpr uint32_t kAddFailLogEvery = 1000;
// Frames waiting in the ring beyond which the oldest are dropped: the device
// takes one block per block played, so a backlog would otherwise stay as
// latency for good (and live sound must keep up with the picture).
constexpr uint32_t kMaxBacklog = 8;
constexpr uint32_t kBacklogKeep = 3;
constexpr uint32_t kLateLogEvery = 100;
constexpr int32_t kSilence = -10000;
constexpr uint32_t kWakeCheckMs = 50; // the feeder re-checks stop and stream state this often

struct OpResult {
    int success = 0;
    bool done = false;
    pa_cvolume volume{};
};

void OnSuccess(pa_context*, int success, void* user)
{
    auto* r = static_cast<OpResult*>(user);
    r->success = success;
    r->done = true;
    pa_threaded_mainloop_signal(Audio_Mainloop(), 0);
}

void OnStreamSuccess(pa_stream*, int success, void* user)
{
    OnSuccess(nullptr, success, user);
}

void OnSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* user)
{
    auto* r = static_cast<OpResult*>(user);
    if (eol) {
        r->done = true;
        pa_threaded_mainloop_signal(Audio_Mainloop(), 0);
        return;
    }
    if (info) {
        r->volume = info->volume;
        r->success = 1;
    }
}

// Runs an operation to its end with the main loop locked; true on success.
bool Finish(pa_operation* op, OpResult& r)
{
    if (!op) {
        return false;
    }
    bool ended =
        Audio_WaitLocked([&] { return r.done || pa_operation_get_state(op) != PA_OPERATION_RUNNING; }, kOpTimeoutMs);
    pa_operation_unref(op);
    return ended && r.success;
}

pa_sample_format_t SampleFormat(uint32_t bits)
{
    switch (bits) {
    case 8:
        return PA_SAMPLE_U8;
    case 16:
        return PA_SAMPLE_S16LE;
    case 32:
        return PA_SAMPLE_S32LE;
    default:
        return PA_SAMPLE_INVALID;
    }
}

} // namespace

void CPulsePlay::OnWritable(pa_stream*, size_t, void* self)
{
    static_cast<CPulsePlay*>(self)->Wake();
}

void CPulsePlay::Wake()
{
    {
        std::lock_guard<std::mutex> lock(m_wakeLock);
        m_woken = true;
    }
    m_wake.notify_one();
}

CPulsePlay::~CPulsePlay()
{
    StopPlaySound();
    DestroySoundDec();
}

bool CPulsePlay::StreamGoodLocked() const
{
    return m_stream && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream));
}

uint32_t CPulsePlay::CreateSoundDec(const AUDIO_WAVE_FORMAT& format, uint32_t blockLength)
{
    if (blockLength == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::CreateSoundDec failed, data len is 0");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!Audio_EnsureDevice()) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::CreateSoundDec failed, sm_gpDSound is null");
        return KORVALEN_ERR_SOUND_BUFFER;
    }
    uint32_t err = QUEUE_InitPacketBuffer(&m_ring, 2 * blockLength, kRingSlots);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::CreateSoundDec failed, QUEUE_InitPacketBuffer fail, error(0x%x)",
                     err);
        return err;
    }
    m_silence = static_cast<uint8_t*>(QMX_HeapMalloc(blockLength));
    if (!m_silence) {
        QUEUE_ReleasePacketBuffer(&m_ring);
        return KORVALEN_ERR_NO_MEMORY;
    }
    if (format.bitsPerSample == 8) {
        std::fill(m_silence, m_silence + blockLength, 0x80); // unsigned 8-bit silence
    }

    AudioLoopLock lock;
    pa_sample_spec sampleSpec{SampleFormat(format.bitsPerSample), format.sampleRate,
                              static_cast<uint8_t>(format.channels)};
    pa_channel_map map;
    if (format.channels == 1) {
        // A mono stream on one named speaker stays on that speaker.
        pa_channel_map_init_mono(&map);
        if (m_speakers == AUDIO_SPEAKERS_LEFT) {
            map.map[0] = PA_CHANNEL_POSITION_FRONT_LEFT;
        } else if (m_speakers == AUDIO_SPEAKERS_RIGHT) {
            map.map[0] = PA_CHANNEL_POSITION_FRONT_RIGHT;
        }
    } else if (!pa_channel_map_init_auto(&map, format.channels, PA_CHANNEL_MAP_DEFAULT)) {
        sampleSpec.format = PA_SAMPLE_INVALID;
    }
    int code = PA_ERR_INVALID;
    if (pa_sample_spec_valid(&sampleSpec)) {
        m_stream = pa_stream_new(Audio_Context(), "Korvalen port sound", &sampleSpec, &map);
    }
    if (m_stream) {
        pa_stream_set_write_callback(m_stream, &CPulsePlay::OnWritable, this);
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = kDeviceBlocks * blockLength;
        attr.prebuf = blockLength;
        attr.minreq = blockLength;
        attr.fragsize = static_cast<uint32_t>(-1);
        auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_START_CORKED | PA_STREAM_ADJUST_LATENCY |
                                                    PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        if (pa_stream_connect_playback(m_stream, nullptr, &attr, flags, nullptr, nullptr) == 0) {
            Audio_WaitLocked(
                [&] {
                    pa_stream_state_t s = pa_stream_get_state(m_stream);
                    return s == PA_STREAM_READY || !PA_STREAM_IS_GOOD(s);
                },
                kOpTimeoutMs);
        }
        code = pa_context_errno(Audio_Context());
    }
    if (!m_stream || pa_stream_get_state(m_stream) != PA_STREAM_READY) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::CreateSoundDec failed, CreateSoundBuffer failed(retcode:%d)",
                     code);
        if (m_stream) {
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
        QUEUE_ReleasePacketBuffer(&m_ring);
        QMX_HeapFree(m_silence);
        m_silence = nullptr;
        return KORVALEN_ERR_OUTPUT_CREATE;
    }
    m_blockSize = blockLength;
    m_channels = format.channels;
    const pa_buffer_attr* got = pa_stream_get_buffer_attr(m_stream);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "CDsoundPlay::CreateSoundDec, block(%d) device buffer(%u) request(%u) bytes",
                 blockLength, got ? got->tlength : 0, got ? got->minreq : 0);
    return KORVALEN_OK;
}

void CPulsePlay::DestroySoundDec()
{
    if (m_stream) {
        AudioLoopLock lock;
        pa_stream_set_write_callback(m_stream, nullptr, nullptr);
        pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }
    QUEUE_ReleasePacketBuffer(&m_ring);
    QMX_HeapFree(m_silence);
    m_silence = nullptr;
}

uint32_t CPulsePlay::StartPlaySound()
{
    if (!m_stream) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::StartPlaySound failed, m_pSoundBuffer is null");
        return KORVALEN_ERR_SOUND_BUFFER;
    }
    {
        AudioLoopLock lock;
        OpResult played;
        if (!Finish(pa_stream_cork(m_stream, 0, &OnStreamSuccess, &played), played)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::StartPlaySound failed, Play failed(retcode:%d)",
                         pa_context_errno(Audio_Context()));
            return 1;
        }
        if (ApplyVolumeLocked(m_curVolume) != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::StartPlaySound failed, SetVolume failed(retcode:%d)",
                         pa_context_errno(Audio_Context()));
            return 1;
        }
    }
    m_running = 1;
    try {
        m_thread = std::thread([this] { SoundPlayThread(); });
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::StartPlaySound failed, KTFW_SDK_thr_create SoundPlay failed");
        m_running = 0;
        AudioLoopLock lock;
        OpResult corked;
        Finish(pa_stream_cork(m_stream, 1, &OnStreamSuccess, &corked), corked);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void CPulsePlay::StopPlaySound()
{
    m_running = 0;
    Wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_stream) {
        AudioLoopLock lock;
        if (StreamGoodLocked()) {
            OpResult corked;
            Finish(pa_stream_cork(m_stream, 1, &OnStreamSuccess, &corked), corked);
        }
    }
}

uint32_t CPulsePlay::ApplyVolumeLocked(int32_t hundredthsDb)
{
    if (!StreamGoodLocked()) {
        return 1;
    }
    pa_volume_t v = hundredthsDb <= kSilence ? PA_VOLUME_MUTED : pa_sw_volume_from_dB(hundredthsDb / 100.0);
    pa_cvolume cv;
    pa_cvolume_set(&cv, static_cast<unsigned>(m_channels), v);
    // Stereo sound on one side: the other channel is silenced.
    if (m_channels == 2 && m_speakers == AUDIO_SPEAKERS_LEFT) {
        cv.values[1] = PA_VOLUME_MUTED;
    } else if (m_channels == 2 && m_speakers == AUDIO_SPEAKERS_RIGHT) {
        cv.values[0] = PA_VOLUME_MUTED;
    }
    OpResult r;
    pa_operation* op =
        pa_context_set_sink_input_volume(Audio_Context(), pa_stream_get_index(m_stream), &cv, &OnSuccess, &r);
    return Finish(op, r) ? KORVALEN_OK : 1;
}

uint32_t CPulsePlay::SetSoundVolume(int32_t hundredthsDb)
{
    AudioLoopLock lock;
    if (ApplyVolumeLocked(hundredthsDb) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::SetSoundVolume failed, SetVolume failed(retcode:%d)",
                     pa_context_errno(Audio_Context()));
        return 1;
    }
    m_curVolume = hundredthsDb;
    return KORVALEN_OK;
}

uint32_t CPulsePlay::GetSoundVolume(int32_t* hundredthsDb)
{
    AudioLoopLock lock;
    OpResult r;
    bool ok =
        StreamGoodLocked() &&
        Finish(pa_context_get_sink_input_info(Audio_Context(), pa_stream_get_index(m_stream), &OnSinkInput, &r), r);
    if (!ok) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::GetSoundVolume failed, SetVolume failed(retcode:%d)",
                     pa_context_errno(Audio_Context()));
        return 1;
    }
    pa_volume_t v = pa_cvolume_max(&r.volume);
    int32_t d = kSilence;
    if (v != PA_VOLUME_MUTED) {
        // The server keeps volumes as integers: round away its float noise.
        d = static_cast<int32_t>(std::lround(pa_sw_volume_to_dB(v) * 100.0));
        d = d < kSilence ? kSilence : (d > 0 ? 0 : d);
    }
    m_curVolume = d;
    *hundredthsDb = d;
    return KORVALEN_OK;
}

uint32_t CPulsePlay::AddSoundData(const uint8_t* data, uint32_t length)
{
    uint32_t err = QUEUE_AddPacket(data, length, &m_ring);
    if (err != KORVALEN_OK) {
        // The decode thread never waits for room: the sound is dropped.
        if (++m_addFail % kAddFailLogEvery == 1) {
            KORVALEN_LOG(KORVALEN_LOG_WARN,
                         "CDsoundPlay::AddSoundData fail, QUEUE_AddPacket fail, error(0x%x), count(%d)", err,
                         m_addFail);
        }
    }
    return err;
}

uint32_t CPulsePlay::WaitPlayDone()
{
    while (m_running) {
        {
            AudioLoopLock lock;
            if (!StreamGoodLocked()) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR,
                             "CDsoundPlay::WaitPlayDone failed, DSound buffer GetCurrentPosition failed(retcode:%d)",
                             pa_context_errno(Audio_Context()));
                return 1;
            }
            if (pa_stream_writable_size(m_stream) >= m_blockSize) {
                return KORVALEN_OK;
            }
        }
        // Sleep until the server asks for data (or a stop, or a state check).
        std::unique_lock<std::mutex> lock(m_wakeLock);
        m_wake.wait_for(lock, std::chrono::milliseconds(kWakeCheckMs), [this] { return m_woken; });
        m_woken = false;
    }
    return KORVALEN_OK;
}

uint32_t CPulsePlay::CheckCurBuffer()
{
    uint8_t* data = nullptr;
    uint32_t length = 0;
    uint32_t waiting = QUEUE_OccupiedSlots(&m_ring);
    if (waiting > kMaxBacklog) {
        uint32_t dropped = 0;
        while (QUEUE_OccupiedSlots(&m_ring) > kBacklogKeep && QUEUE_GetPacket(&m_ring, &data, &length) == KORVALEN_OK) {
            ++dropped;
        }
        m_lateDropped += dropped;
        if (m_lateLogs++ % kLateLogEvery == 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "CDsoundPlay::CheckCurBuffer warm, sound behind, dropped(%d), count(%d)",
                         dropped, m_lateDropped);
        }
    }
    bool empty = QUEUE_GetPacket(&m_ring, &data, &length) != KORVALEN_OK;
    if (empty) {
        // Nothing decoded: keep the device fed with silence and back off.
        data = m_silence;
        length = m_blockSize;
    } else if (length > m_blockSize) {
        length = m_blockSize;
    }
    int rc;
    {
        AudioLoopLock lock;
        rc = pa_stream_write(m_stream, data, length, nullptr, 0, PA_SEEK_RELATIVE);
    }
    if (rc < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDsoundPlay::CheckCurBuffer failed, Lock failed, error(0x%x)", -rc);
        return 1;
    }
    if (empty) {
        PLAT_SleepMs(kUnderrunSleepMs);
    }
    return KORVALEN_OK;
}

void CPulsePlay::SoundPlayThread()
{
    PLAT_SetThreadName("SoundPlay");
    while (m_running) {
        uint32_t err = WaitPlayDone();
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "WaitPlayDone failed, error(0x%x)", err);
            m_broken = true;
            return;
        }
        if (!m_running) {
            break;
        }
        err = CheckCurBuffer();
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "UpdateBuffer failed, error(0x%x)", err);
            m_broken = true;
            return;
        }
    }
}

uint64_t CPulsePlay::LatencyUs()
{
    if (!m_stream) {
        return 0;
    }
    AudioLoopLock lock;
    if (!StreamGoodLocked()) {
        return 0;
    }
    OpResult updated;
    Finish(pa_stream_update_timing_info(m_stream, &OnStreamSuccess, &updated), updated);
    pa_usec_t usec = 0;
    int negative = 0;
    int rc = pa_stream_get_latency(m_stream, &usec, &negative);
    if (rc < 0 || negative) {
        return 0;
    }
    return usec;
}
