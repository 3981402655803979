#include "report/report.h"

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "log/log.h"
#include "platform/platform.h"
#include "queue/queue_packet.h"

namespace {

constexpr uint32_t kReportSlots = 256;
constexpr uint32_t kReportSlotSize = 276;
constexpr uint32_t kReportPeriodMs = 40;
static_assert(sizeof(KORVALEN_RUN_MSG) == kReportSlotSize, "one run message per report slot");

struct ReportModule {
    QUEUE_PACKET_BUFFER queue;
    std::thread thread;
    std::mutex wakeLock;
    std::condition_variable wake;
    bool stop = false;
    std::atomic<bool> running{false};
};

ReportModule g_report;
std::atomic<KORVALEN_RUN_MSG_CB> g_callback{nullptr};

void Deliver()
{
    uint8_t* data = nullptr;
    uint32_t len = 0;
    while (QUEUE_GetPacket(&g_report.queue, &data, &len) == KORVALEN_OK) {
        KORVALEN_RUN_MSG_CB cb = g_callback.load();
        if (cb && len == sizeof(KORVALEN_RUN_MSG)) {
            KORVALEN_RUN_MSG msg;
            std::memcpy(&msg, data, sizeof msg);
            cb(&msg);
        }
    }
}

void ReportThread()
{
    PLAT_SetThreadName("Report");
    std::unique_lock<std::mutex> lock(g_report.wakeLock);
    while (!g_report.stop) {
        g_report.wake.wait_for(lock, std::chrono::milliseconds(kReportPeriodMs));
        lock.unlock();
        Deliver();
        lock.lock();
    }
}

} // namespace

uint32_t Report_Init()
{
    uint32_t err = QUEUE_InitPacketBuffer(&g_report.queue, kReportSlotSize, kReportSlots);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Report_Init fail, QUEUE_InitPacketBuffer failed, size:%d, num:%d ",
                     kReportSlotSize, kReportSlots);
        return err;
    }
    g_report.stop = false;
    try {
        g_report.thread = std::thread(ReportThread);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Report_Init fail, KTFW_SDK_thr_create fail");
        QUEUE_ReleasePacketBuffer(&g_report.queue);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    g_report.running.store(true);
    return KORVALEN_OK;
}

void Report_Fini()
{
    if (!g_report.running.exchange(false)) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(g_report.wakeLock);
        g_report.stop = true;
    }
    g_report.wake.notify_all();
    g_report.thread.join();
    QUEUE_ReleasePacketBuffer(&g_report.queue);
}

void Report_SetCallback(KORVALEN_RUN_MSG_CB cb)
{
    g_callback.store(cb);
}

uint32_t Report_Send(uint32_t port, uint32_t type, uint32_t code, uint32_t value, const char* text)
{
    if (!g_report.running.load()) {
        return KORVALEN_ERR_INIT;
    }
    KORVALEN_RUN_MSG msg{};
    msg.port = port;
    msg.type = type;
    msg.code = code;
    msg.value = value;
    if (text) {
        size_t n = std::strlen(text);
        if (n >= sizeof msg.data) {
            n = sizeof msg.data - 1;
        }
        std::memcpy(msg.data, text, n);
        msg.data_len = static_cast<uint32_t>(n);
    }
    return QUEUE_AddPacket(reinterpret_cast<const uint8_t*>(&msg), sizeof msg, &g_report.queue);
}
