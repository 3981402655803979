#include "port/port_table.h"

#include <atomic>
#include <mutex>

#include "audio/audio_device.h"
#include "audio/audio_port.h"
#include "codec/code_manager.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "pipeline/player_gpu.h"
#include "port/player_api.h"
#include "port/port_source.h"
#include "report/report.h"
#include "source/hls/hls_cache.h"

namespace {

std::mutex g_tableLock;
std::atomic<PortRecord*> g_ports[kPortCount];
std::recursive_mutex g_portLocks[kPortCount];
uint32_t g_cursor = 0;
void CloseSource(PortRecord* rec)
{
    if (rec->voice.open) {
        Player_CloseVoiceSvc(rec->port);
    }
    switch (rec->sourceKind) {
    case SOURCE_MEDIA_FILE:
        Player_CloseMediaFile(rec->port);
        break;
    default:
        Port_CloseSource(rec);
        break;
    }
}

} // namespace

std::recursive_mutex& Port_Lock(uint32_t port)
{
    return g_portLocks[port % kPortCount];
}

uint32_t Player_Startup()
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Player_Startup");
    uint32_t err = Report_Init();
    if (err != KORVALEN_OK) {
        return err;
    }
    CODE_GlobalInit();
    HLS_CacheStartup();
    {
        std::lock_guard<std::mutex> lock(g_tableLock);
        for (auto& slot : g_ports) {
            slot.store(nullptr);
        }
        g_cursor = 0;
    }
    // Without a sound server the library still starts; playback then
    // reports the missing device per port.
    Audio_Init();
    return KORVALEN_OK;
}

void Player_Cleanup()
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Player_Cleanup");
    for (uint32_t p = 0; p < kPortCount; ++p) {
        std::lock_guard<std::recursive_mutex> lock(Port_Lock(p));
        Player_FreePort(p);
    }
    Audio_Fini();
    CODE_GlobalRelease();
    Report_Fini();
}

uint32_t Player_AllocPort(uint32_t* port)
{
    if (!port) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    PortRecord* rec = nullptr;
    uint32_t slot = kPortCount;
    {
        std::lock_guard<std::mutex> lock(g_tableLock);
        for (uint32_t k = 0; k < kPortCount; ++k) {
            uint32_t s = (g_cursor + k) % kPortCount;
            if (!g_ports[s].load(std::memory_order_relaxed)) {
                slot = s;
                break;
            }
        }
        if (slot == kPortCount) {
            return KORVALEN_ERR_PORT;
        }
        // The table lock is released on failure too: holding it would stop
        // every later allocation in the process.
        rec = QMX_New<PortRecord>();
        if (!rec) {
            return KORVALEN_ERR_NO_MEMORY;
        }
        rec->port = slot;
        rec->recorder.port = slot;
        rec->recorder.payloads = &rec->stream.payloads;
        rec->recorder.aacConfig = rec->stream.aacConfig;
        rec->video.settings.port = slot;
        rec->gpuDecode = Player_GpuDecodeSwitch();
        g_cursor = (slot + 1) % kPortCount;
        g_ports[slot].store(rec, std::memory_order_release);
    }
    *port = slot;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port %03d Player_AllocPort succes", slot);
    return KORVALEN_OK;
}

void Player_FreePort(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return;
    }
    CloseSource(rec);
    Player_StopPlay(port, rec->playback.window);
    Audio_ReleasePortSound(rec->sound, rec->dataLock);
    Video_DestroyDisplayDec(rec->video.display);
    QUEUE_ReleasePacketBuffer(&rec->packetBuffer);
    {
        std::lock_guard<std::mutex> lock(g_tableLock);
        g_ports[port].store(nullptr, std::memory_order_release);
    }
    QMX_Delete(rec);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port %03d Player_FreePort succes", port);
}

PortRecord* Player_GetPort(uint32_t port)
{
    return port < kPortCount ? g_ports[port].load(std::memory_order_acquire) : nullptr;
}

uint32_t Player_ActivePortCount()
{
    std::lock_guard<std::mutex> lock(g_tableLock);
    uint32_t n = 0;
    for (auto& slot : g_ports) {
        PortRecord* rec = slot.load(std::memory_order_relaxed);
        if (rec && (rec->sourceKind == SOURCE_INPUT_STREAM || rec->sourceKind == SOURCE_NET_STREAM ||
                    rec->sourceKind == SOURCE_MEDIA_FILE || rec->sourceKind == SOURCE_HLS)) {
            ++n;
        }
    }
    return n;
}

uint32_t Player_SetPacketBuffer(uint32_t port, uint32_t bufferSize, uint32_t delayRenderTime)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (bufferSize < kPacketBufferMin) {
        bufferSize = kPacketBufferMin;
    } else if (bufferSize > kPacketBufferMax) {
        bufferSize = kPacketBufferMax;
    }
    rec->packetBufferSize = bufferSize;
    rec->delayRenderTime = delayRenderTime > kDelayRenderMax ? kDelayRenderMax : delayRenderTime;
    return KORVALEN_OK;
}

uint32_t Player_SetBufferCtrl(uint32_t port, uint32_t bufferCtrl)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (bufferCtrl > 1) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Unknown ctrl type(%d)", port, bufferCtrl);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    rec->bufferCtrl = bufferCtrl;
    return KORVALEN_OK;
}

uint32_t Player_GetPacketQueueStart(uint32_t port, uint32_t* frameCount, uint32_t* occupied)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (rec->packetBuffer.slotCount != 0) {
        *frameCount = rec->packetBuffer.frameCount.load();
        *occupied = QUEUE_OccupiedSlots(&rec->packetBuffer);
    }
    return KORVALEN_OK;
}
