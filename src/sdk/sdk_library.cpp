// Library-wide exported functions: init and clean-up, version, last error,
// logging settings, run messages, the decode-channel limit, memory figure.
#include <atomic>
#include <cstdio>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log/log_file.h"
#include "platform/platform.h"
#include "port/port_table.h"
#include "report/report.h"
#include "sdk/sdk_frame.h"

namespace {
constexpr size_t kHeapSize = 0xC800000; // 200 MiB; the heap grows, the size is only checked
std::atomic<int32_t> g_initCount{0};
std::atomic<uint32_t> g_logSinkFlag{0};
} // namespace

extern "C" {

int32_t Korvalen_Init(void)
{
    int32_t count = ++g_initCount;
    if (count != 1) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Call Korvalen_Init warm, Player had been initlized[%d]", count);
        return 1;
    }
    if (QMX_HeapCreate(kHeapSize) != 0) {
        // The counter stays as it is and no last error is set: callers have
        // always relied on this step answering its own code.
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_Startup fail, Report_Init");
        return 1;
    }
    if (g_logSinkFlag.load() == 0) {
        LOGFILE_Open();
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_Init");
    uint32_t err = Player_Startup();
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Korvalen_Init failed, Player_Startup failed, error(0x%x)", err);
        LOGFILE_Close();
        QMX_HeapDestroy();
        SDK_SetLastError(KORVALEN_ERR_INIT);
        --g_initCount;
        return 0;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_Init Success, Version: %s", kVersionText);
    return 1;
}

void Korvalen_Cleanup(void)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_Cleanup");
    int32_t count = --g_initCount;
    if (count == 0) {
        Player_Cleanup();
        LOGFILE_Close();
        if (QMX_HeapDestroy() != 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "QMX_HeapDestroy warm, HeapDestroy fail");
        }
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_Cleanup Success");
    } else if (count < 0) {
        g_initCount.store(0);
    } else {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_Cleanup info, Player had been initlized[%d]", count);
    }
}

uint32_t Korvalen_GetVersion(void)
{
    return kVersionPacked;
}

uint32_t Korvalen_GetLastError(void)
{
    return SDK_LastError();
}

int32_t Korvalen_GetInitCount(void)
{
    int32_t count = g_initCount.load();
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_GetInitCount, Init count(%d)", count);
    return count;
}

int32_t Korvalen_SetLog(uint32_t level, const char* log_path, uint32_t log_size_kb)
{
    if (LOGFILE_SetLog(level, log_path, log_size_kb) == KORVALEN_OK) {
        return 1;
    }
    std::fprintf(stderr, "[_sdk_func-%d]SetLog failed, Level = %d, LogPath = %s, LogSize = %d.\n", __LINE__,
                 static_cast<int>(level), log_path ? log_path : "", static_cast<int>(log_size_kb));
    return 0;
}

int32_t Korvalen_SetWriteLogCB(KORVALEN_LOG_CB callback)
{
    if (!callback) {
        // Removing the callback hands lines back to the files when they are
        // open, and lets the next first Korvalen_Init open them.
        LOG_SetSink(LOGFILE_IsOpen() ? &LOGFILE_Sink : nullptr);
        g_logSinkFlag.store(0);
        return 1;
    }
    LOG_SetSink(callback);
    g_logSinkFlag.store(1);
    return 1;
}

int32_t Korvalen_WriteRmLogInfo(uint32_t level, const char* source, uint32_t line, const char* format, va_list* args)
{
    if (!format) {
        return 1;
    }
    if (!args) {
        LOG_Write(level, source, line, "%s", format);
        return 1;
    }
    va_list copy;
    va_copy(copy, *args);
    LOG_WriteV(level, source, line, format, copy);
    va_end(copy);
    return 1;
}

int32_t Korvalen_SetPlayerRunMsgCB(KORVALEN_RUN_MSG_CB callback)
{
    Report_SetCallback(callback);
    return 1;
}

int32_t Korvalen_SetMaxDecChlNum(uint32_t max_channels)
{
    if (max_channels <= kPortCount) {
        SDK_SetMaxDecChl(max_channels);
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Korvalen_SetMaxDecChlNum success, Max decode channel number : %d",
                     max_channels);
        return 1;
    }
    SDK_SetMaxDecChl(kPortCount);
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Korvalen_SetMaxDecChlNum fail, Max decode channel number : %d", max_channels);
    return SDK_Fail(KORVALEN_ERR_INVALID_PARAM);
}

int32_t Korvalen_GetTotalVirtualSize(uint32_t* size_mib, uint64_t* bytes_out)
{
    uint64_t bytes = size_mib ? PLAT_VirtualSizeBytes() : 0;
    if (bytes == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call  Korvalen_GetTotalVirtualSize fail.");
        return SDK_Fail(size_mib ? KORVALEN_ERR_FILE_READ : KORVALEN_ERR_INVALID_PARAM);
    }
    uint64_t mib = bytes >> 20;
    *size_mib = mib > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(mib);
    if (bytes_out) {
        *bytes_out = bytes;
    }
    return 1;
}

} // extern "C"
