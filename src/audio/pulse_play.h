// CDsoundPlay on a PulseAudio playback stream. The stream's target length is
// four blocks, so the feeding thread writes one block whenever the server has
// room for one: the same bound as a four-block looping buffer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "audio/dsound_play.h"
#include "queue/queue_packet.h"

struct pa_stream;

class CPulsePlay final : public CDsoundPlay {
public:
    ~CPulsePlay() override;
    uint32_t CreateSoundDec(const AUDIO_WAVE_FORMAT& format, uint32_t blockLength) override;
    void DestroySoundDec() override;
    uint32_t StartPlaySound() override;
    void StopPlaySound() override;
    uint32_t SetSoundVolume(int32_t hundredthsDb) override;
    uint32_t GetSoundVolume(int32_t* hundredthsDb) override;
    uint32_t AddSoundData(const uint8_t* data, uint32_t length) override;
    uint32_t WaitPlayDone() override;
    uint32_t CheckCurBuffer() override;
    void SoundPlayThread() override;
    void SetSpeakers(uint32_t speakers) override { m_speakers = speakers; }
    bool IsBroken() const override { return m_broken.load(); }
    uint32_t RingSlots() const override { return m_ring.slotCount; }
    uint32_t RingWriteIndex() const override { return m_ring.writeIndex.load(); }
    uint32_t RingReadIndex() const override { return m_ring.readIndex.load(); }
    uint64_t LatencyUs() override;

private:
    static void OnWritable(pa_stream* stream, size_t bytes, void* self);
    void Wake();
    uint32_t ApplyVolumeLocked(int32_t hundredthsDb);
    bool StreamGoodLocked() const;

    pa_stream* m_stream = nullptr;
    uint32_t m_blockSize = 65535;
    int32_t m_curVolume = -10000;
    uint32_t m_channels = 0;
    uint32_t m_speakers = AUDIO_SPEAKERS_BOTH;
    std::atomic<uint32_t> m_running{0};
    std::atomic<bool> m_broken{false};
    std::thread m_thread;
    // The server's requests for data wake the feeding thread: no polling.
    std::mutex m_wakeLock;
    std::condition_variable m_wake;
    bool m_woken = false;
    QUEUE_PACKET_BUFFER m_ring;
    uint8_t* m_silence = nullptr; // one block of zeros
    uint32_t m_addFail = 0;
    uint32_t m_lateDropped = 0; // frames dropped to catch up with live sound
    uint32_t m_lateLogs = 0;
};
