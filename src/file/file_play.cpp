// Opening and closing a media file on a port, and the file play thread.
#include "file/file_play.h"
#include "media/codec_facts.h"

#include <cstring>
#include <mutex>

#include "audio/audio_port.h"
#include "audio/dsound_play.h"
#include "codec/code_manager.h"
#include "log/log.h"
#include "demux/mp4/mp4_reader.h"
#include "platform/platform.h"
#include "port/player_api.h"
#include "port/port_table.h"
#include "report/report.h"
#include "pipeline/stream_decode.h"

namespace {

constexpr uint32_t kPausedSleepMs = 50;
constexpr uint32_t kDefaultRate = 25;

// An MP4 reader hands H.265 samples over as stored, each unit behind a 4-byte
// length. The stream probes and the decoder read start codes, so a sample
// that proves to be such a chain gets start codes, in place.
void LengthsToStartCodes(uint8_t* data, uint32_t length)
{
    if (MP4_LengthPrefixed(data, length)) {
        MP4_ToAnnexB(data, length);
    }
}

// Blocks waiting in the port's sound ring; -1 when no sound plays.
int32_t SoundLevel(PortRecord* rec)
{
    std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
    const CDsoundPlay* play = rec->sound.play;
    if (!play || !rec->sound.open) {
        return -1;
    }
    const uint32_t w = play->RingWriteIndex();
    const uint32_t r = play->RingReadIndex();
    return static_cast<int32_t>(w >= r ? w - r : play->RingSlots() - r + w);
}

// The stream frame rate of a file: from the smallest step between video
// time stamps (B-frames make the steps uneven; the smallest is one frame).
void LearnRate(PortRecord* rec, uint64_t stamp)
{
    PortFile& pf = rec->file;
    if (pf.prevVideoStamp && stamp > pf.prevVideoStamp) {
        const uint64_t step = stamp - pf.prevVideoStamp;
        if (step <= 90000 && (pf.minVideoStep == 0 || step < pf.minVideoStep)) {
            pf.minVideoStep = step;
            const auto rate = static_cast<uint32_t>(90000 / step);
            if (rate >= 1 && rate <= 60) {
                rec->stream.frameRate = rate;
                rec->playback.frameRate = rate;
                rec->frameInterval = 1000 / rate;
                pf.frameInterval = 1000.0f / static_cast<float>(rate);
            }
        }
    }
    pf.prevVideoStamp = stamp;
}

void Publish(PortRecord* rec, const FileFrameInfo& f)
{
    StreamFrame& sf = rec->stream.frame;
    sf.data = f.data;
    sf.length = f.length;
    sf.timestamp = f.timeStamp;
    sf.codecType = f.payloadType;
    sf.frameType = f.frameType;
}

// Gives a frame to the decoder without showing its picture: the frames
// between a key frame and the one stepped back to.
void DecodeQuietly(PortRecord* rec, const uint8_t* data, uint32_t length, uint32_t payload)
{
    PortStream& st = rec->stream;
    if (st.videoOpen && st.video.codecType == static_cast<int32_t>(payload)) {
        CODE_INPUT in{};
        in.data = data;
        in.length = length;
        CODE_Decoder(&st.video, &in, &st.videoOut);
    }
}

// One frame back (MP4): decode quietly from the key frame before the target
// up to the frame before it, then show the target.
void StepBack(PortRecord* rec)
{
    PortFile& pf = rec->file;
    std::unique_lock<std::mutex> lock(pf.lock);
    Mp4Info* m = pf.parser.mp4Parser;
    if (!m || pf.lastVideoSample <= 0) {
        return;
    }
    int64_t target = pf.lastVideoSample - 1;
    while (target >= 0 && m->samples[target].track != m->videoTrack) {
        --target;
    }
    if (target < 0) {
        return; // already at the first frame
    }
    int64_t key = target;
    while (key > 0 && !(m->samples[key].track == m->videoTrack && m->samples[key].key)) {
        --key;
    }
    Mp4Frame f;
    f.buffer = pf.parser.frameBuffer;
    for (int64_t i = key; i < target; ++i) {
        if (m->samples[i].track != m->videoTrack ||
            MP4_MakeOneFrame(pf.parser.file, m, &m->samples[i], &f) != KORVALEN_OK) {
            continue;
        }
        if (f.payloadType == KORVALEN_CODEC_H265) {
            LengthsToStartCodes(f.buffer, f.length);
        }
        DecodeQuietly(rec, f.buffer, f.length, f.payloadType);
    }
    if (MP4_MakeOneFrame(pf.parser.file, m, &m->samples[target], &f) != KORVALEN_OK) {
        return;
    }
    if (f.payloadType == KORVALEN_CODEC_H265) {
        LengthsToStartCodes(f.buffer, f.length);
    }
    pf.lastVideoSample = target;
    pf.current = FileFrameInfo{f.buffer, f.length, f.payloadType, f.frameType, f.timeStamp};
    pf.currentStamp = f.timeStamp;
    Publish(rec, pf.current);
    lock.unlock();
    Stream_HandleFrame(rec);
}

// Reads video frames from a seek to `from` seconds until one at or after
// `before` (time stamps): the key frame decoding can start at, and the last
// frame ahead of `before`. False when no key frame comes ahead of it.
bool ScanBack(PortFile& pf, uint32_t from, uint32_t fps, uint64_t before, uint64_t* key, uint64_t* last)
{
    if (File_SetPlayTime(&pf.parser, from, fps) != KORVALEN_OK) {
        return false;
    }
    bool keyed = false;
    for (;;) {
        FileFrameInfo f{};
        if (File_ReadOneFrame(&pf.parser, &f, FILE_READ_STEP) != KORVALEN_OK || f.timeStamp >= before) {
            return keyed;
        }
        if (!keyed && f.frameType == 0) {
            keyed = true;
            *key = f.timeStamp;
        }
        *last = f.timeStamp;
    }
}

// One frame back (MPEG-TS, AVI: no sample index): seek a little before the
// current frame, further each time no key frame lies ahead of it; find the
// frame before the current one, then seek again and decode quietly from the
// key frame up to it and show it. Time stamps in decode order: a stream
// with B-frames steps back in decode order.
void StepBackBySeeking(PortRecord* rec)
{
    PortFile& pf = rec->file;
    std::unique_lock<std::mutex> lock(pf.lock);
    const uint64_t current = pf.lastVideoStamp;
    uint32_t now = 0;
    if (current == kNoVideoStamp || File_GetPlayTime(&pf.parser, &now) != KORVALEN_OK) {
        return;
    }
    const uint32_t fps = rec->stream.frameRate;
    uint64_t key = 0;
    uint64_t target = 0;
    uint32_t from = now;
    for (uint32_t back = 1;; back *= 2) {
        from = now > back ? now - back : 0;
        if (ScanBack(pf, from, fps, current, &key, &target)) {
            break;
        }
        if (from == 0) {
            return; // the first frame: the scan has read up to it again, so going on shows the next
        }
    }
    File_SetPlayTime(&pf.parser, from, fps);
    for (;;) {
        FileFrameInfo f{};
        if (File_ReadOneFrame(&pf.parser, &f, FILE_READ_STEP) != KORVALEN_OK || f.timeStamp > target) {
            return;
        }
        if (f.timeStamp < key) {
            continue; // ahead of the key frame: cannot be decoded
        }
        if (f.timeStamp < target) {
            DecodeQuietly(rec, f.data, f.length, f.payloadType);
            continue;
        }
        pf.lastVideoStamp = target;
        pf.current = f;
        pf.currentStamp = f.timeStamp;
        Publish(rec, f);
        lock.unlock();
        Stream_HandleFrame(rec);
        return;
    }
}

void SendEnd(PortRecord* rec)
{
    PortFile& pf = rec->file;
    uint32_t seconds = 0;
    {
        std::lock_guard<std::mutex> lock(pf.lock);
        File_GetPlayTime(&pf.parser, &seconds);
    }
    uint32_t err = Report_Send(rec->port, kReportPlaybackEnd, KORVALEN_ERR_FILE_END, seconds, nullptr);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Player_StopRecord warm, send report fail, error(%d)", rec->port,
                     err);
    }
}

void FilePlayThread(PortRecord* rec)
{
    PLAT_SetThreadName("FilePlay");
    PortFile& pf = rec->file;
    const uint32_t port = rec->port;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __FilePayThreadEntry thread succeed", port);
    FileTime previous = File_Now();
    while (pf.running) {
        previous = File_Now();
        const int32_t seek = pf.seekRequest.exchange(-1);
        if (pf.backRequest.exchange(0)) {
            if (pf.parser.mp4Parser) {
                StepBack(rec);
            } else {
                StepBackBySeeking(rec);
            }
            pf.frameCtrl = 0;
            pf.stepDone = 1;
            continue;
        }
        uint32_t mode = pf.frameCtrl;
        if (seek < 0) {
            if (mode == 0 || (pf.held && (mode == 1 || mode == 4 || mode == 5))) {
                PLAT_SleepMs(kPausedSleepMs);
                continue;
            }
            if (mode == 2 || mode == 3) {
                pf.frameCtrl = 0;
                mode = 0;
            } else if (mode == 4 && pf.switchToMarked) {
                pf.frameCtrl = 5;
                mode = 5;
            } else if (mode > 5) {
                KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Start __FilePayThreadEntry warm, FrameCtrl unknow(%d)",
                             port, mode);
            }
        } else {
            uint32_t err;
            {
                std::lock_guard<std::mutex> lock(pf.lock);
                err = File_SetPlayTime(&pf.parser, static_cast<uint32_t>(seek), rec->stream.frameRate);
                pf.keyAfterSeek = err == KORVALEN_OK && pf.parser.tsBuffer != nullptr; // an MPEG-TS file
            }
            pf.prevVideoStamp = 0;
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_WARN,
                             "Port [%03d] Start __FilePayThreadEntry warm, File_SetPlayTime fail, error(%d)", port,
                             err);
            }
        }
        uint32_t err = Player_ParserFile(rec, mode);
        if (pf.frameCtrl == 0 && pf.stepDone == 0) {
            pf.stepDone = 1;
        }
        if (err == KORVALEN_ERR_FILE_END) {
            KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Start __FilePayThreadEntry thread info, file read end", port);
            pf.frameCtrl = 0;
            pf.stepDone = 1;
            Stream_DrainVideo(rec);
            SendEnd(rec);
            continue;
        }
        if (err != KORVALEN_OK) {
            if (err != KORVALEN_ERR_UNKNOWN_STREAM) {
                KORVALEN_LOG(KORVALEN_LOG_WARN,
                             "Port [%03d] Start __FilePayThreadEntry thread warm, Player_ParserFile fail, error(%d)",
                             port, err);
            }
            continue;
        }
        // The recorder takes the frame here once recording lands.
        Stream_HandleFrame(rec);
        if (Codec_IsVideo(pf.current.payloadType) && mode != 0) {
            Player_FileSleepProc(&previous, rec->speedFactor, rec);
        }
    }
    Audio_ReleasePortSound(rec->sound, rec->dataLock);
}

void ResetPlayState(PortRecord* rec)
{
    PortFile& pf = rec->file;
    pf.frameCtrl = 0;
    pf.stepDone = 0;
    pf.seekRequest = -1;
    pf.backRequest = 0;
    pf.switchToMarked = 0;
    pf.held = 0;
    pf.speedCode = 2;
    pf.current = FileFrameInfo{};
    pf.currentStamp = 0;
    pf.lastVideoSample = -1;
    pf.lastVideoStamp = kNoVideoStamp;
    pf.keyAfterSeek = false;
    pf.prevVideoStamp = 0;
    pf.minVideoStep = 0;
    rec->speedFactor = 1.0f;
}

} // namespace

FileTime File_Now()
{
    const uint32_t ms = PLAT_TickMs();
    return FileTime{ms / 1000, ms % 1000};
}

int32_t File_FrameWaitMs(uint32_t frameCtrl, float speedFactor, uint32_t frameRate, float frameInterval,
                         int32_t elapsedMs, int32_t soundLevel)
{
    int32_t target;
    if (frameCtrl != 4 && frameCtrl != 5) {
        target = static_cast<int32_t>(1000.0f * speedFactor / static_cast<float>(frameRate ? frameRate : kDefaultRate));
    } else {
        target = static_cast<int32_t>(frameInterval * speedFactor);
    }
    int32_t correction = 0;
    if (soundLevel >= 0 && speedFactor == 1.0f) {
        if (soundLevel < 5) {
            correction = frameRate < 31 ? -20 : -15;
        } else if (soundLevel >= 6 && soundLevel < 10) {
            correction = frameRate < 31 ? 20 : 15;
        }
    }
    return target - elapsedMs + correction;
}

uint32_t Player_FileSleepProc(const FileTime* previous, float speedFactor, PortRecord* rec)
{
    if (!previous || !rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_FileSleepProc fail, invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const FileTime now = File_Now();
    const int32_t elapsed = static_cast<int32_t>(now.seconds - previous->seconds) * 1000 +
                            (static_cast<int32_t>(now.milliseconds) - static_cast<int32_t>(previous->milliseconds));
    const int32_t wait = File_FrameWaitMs(rec->file.frameCtrl, speedFactor, rec->playback.fileFrameRate,
                                          rec->file.frameInterval, elapsed, SoundLevel(rec));
    if (wait > 0) {
        PLAT_SleepMs(static_cast<uint32_t>(wait));
    }
    return KORVALEN_OK;
}

uint32_t Player_ParserFile(PortRecord* rec, uint32_t readMode)
{
    PortFile& pf = rec->file;
    FileFrameInfo f{};
    uint32_t err;
    {
        std::lock_guard<std::mutex> lock(pf.lock);
        err = File_ReadOneFrame(&pf.parser, &f, readMode);
        // A TS seek lands on any frame: the pictures up to the next key frame
        // cannot be decoded, so they are passed over (sound still plays).
        while (err == KORVALEN_OK && pf.keyAfterSeek && Codec_IsVideo(f.payloadType) && f.frameType != 0) {
            err = File_ReadOneFrame(&pf.parser, &f, readMode);
        }
        if (err == KORVALEN_OK && Codec_IsVideo(f.payloadType)) {
            pf.keyAfterSeek = false;
        }
        if (err == KORVALEN_OK && pf.parser.mp4Parser && Codec_IsVideo(f.payloadType)) {
            pf.lastVideoSample = static_cast<int64_t>(pf.parser.mp4Parser->cursor) - 1;
            if (f.payloadType == KORVALEN_CODEC_H265 && f.data == pf.parser.frameBuffer) {
                LengthsToStartCodes(pf.parser.frameBuffer, f.length);
            }
        }
    }
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_FILE_END) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_ParserFile fail, File_ReadOneFrame fail, error(%d)",
                         rec->port, err);
        }
        return err;
    }
    pf.current = f;
    pf.currentStamp = f.timeStamp;
    if (Codec_IsVideo(f.payloadType)) {
        pf.lastVideoStamp = f.timeStamp;
    }
    Publish(rec, f);
    // Key-frame reading skips frames: its steps are key-frame distances,
    // not the frame interval the fast codes multiply.
    if (Codec_IsVideo(f.payloadType) && readMode != FILE_READ_KEY && readMode != FILE_READ_MARKED) {
        LearnRate(rec, f.timeStamp);
    }
    if (Codec_IsVideo(f.payloadType)) {
        const uint32_t rate = rec->stream.frameRate;
        if (rate >= 1 && rate <= 60) {
            rec->playback.fileFrameRate = rate;
        }
    }
    return KORVALEN_OK;
}

void File_OnPlayState(PortRecord* rec, bool playing)
{
    rec->file.held = playing ? 0 : 1;
    if (playing) {
        uint32_t expected = 0;
        rec->file.frameCtrl.compare_exchange_strong(expected, 1);
    }
}

uint32_t Player_OpenMediaFile(uint32_t port, const char* fileName)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    if (rec->sourceKind != SOURCE_NONE) {
        return KORVALEN_ERR_NOT_SUPPORTED; // one source at a time
    }
    PortFile& pf = rec->file;
    uint32_t err;
    {
        std::lock_guard<std::mutex> lock(pf.lock);
        err = File_CreateFileParser(fileName, &pf.parser);
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenMediaFile fail, File_CreateFileParser fail, error(%d)",
                     port, err);
        return err;
    }
    std::strncpy(pf.name, fileName, kFileNameMax - 1);
    ResetPlayState(rec);
    const uint32_t rate = pf.parser.frameRate >= 1 && pf.parser.frameRate <= 60 ? pf.parser.frameRate : kDefaultRate;
    PortStream& st = rec->stream;
    st.frameRate = rate;
    st.rateFromStream = 1; // the play thread measures the rate; the decode side keeps it
    rec->playback.frameRate = rate;
    rec->playback.fileFrameRate = rate;
    rec->frameInterval = 1000 / rate;
    pf.frameInterval = 1000.0f / static_cast<float>(rate);
    pf.running = 1;
    try {
        pf.thread = std::thread(FilePlayThread, rec);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create FileRecv failed", port);
        pf.running = 0;
        std::lock_guard<std::mutex> lock(pf.lock);
        File_DestroyFileParser(&pf.parser);
        st.rateFromStream = 0;
        return KORVALEN_ERR_THREAD_CREATE;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenMediaFile success", port);
    rec->sourceKind = SOURCE_MEDIA_FILE;
    pf.filePort = 1;
    return KORVALEN_OK;
}

uint32_t Player_CloseMediaFile(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    PortFile& pf = rec->file;
    if (!pf.filePort) {
        return KORVALEN_OK;
    }
    rec->sound.open = 0;
    if (rec->playback.rendering) {
        Player_StopPlay(port, rec->playback.window);
    }
    pf.running = 0;
    pf.frameCtrl = 0;
    if (pf.thread.joinable()) {
        pf.thread.join();
    }
    {
        std::lock_guard<std::mutex> lock(pf.lock);
        File_DestroyFileParser(&pf.parser);
    }
    Stream_ReleaseDecoders(rec);
    rec->stream.rateFromStream = 0;
    ResetPlayState(rec);
    pf.filePort = 0;
    rec->sourceKind = SOURCE_NONE;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Player_CloseMediaFile succes", port);
    return KORVALEN_OK;
}
