#include "log/log.h"

#include <atomic>
#include <cstdio>

#include "log/log_file.h"
#include "platform/platform.h"

namespace {
std::atomic<KORVALEN_LOG_CB> g_sink{nullptr};
}

KORVALEN_LOG_CB LOG_SetSink(KORVALEN_LOG_CB sink)
{
    return g_sink.exchange(sink);
}

KORVALEN_LOG_CB LOG_GetSink()
{
    return g_sink.load();
}

bool LOG_SetSinkIfNone(KORVALEN_LOG_CB sink)
{
    KORVALEN_LOG_CB expected = nullptr;
    return g_sink.compare_exchange_strong(expected, sink);
}

void LOG_WriteV(uint32_t level, const char* file, uint32_t line, const char* fmt, va_list args)
{
    KORVALEN_LOG_CB sink = g_sink.load(std::memory_order_acquire);
    if (!sink || !fmt) {
        return;
    }
    // Lines the file writer would drop are not worth formatting.
    if (sink == &LOGFILE_Sink && !LOGFILE_WouldWrite(level)) {
        return;
    }
    char msg[kLogLineMax];
    std::vsnprintf(msg, sizeof msg, fmt, args);
    char text[kLogLineMax];
    // Both steps cut at 1024 bytes on purpose.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif
    std::snprintf(text, sizeof text, "[%d-%d] %s", PLAT_ProcessId(), static_cast<int>(PLAT_ThreadId()), msg);
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
    sink(level, kLogModuleId, 0, file, line, text);
}

void LOG_Write(uint32_t level, const char* file, uint32_t line, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    LOG_WriteV(level, file, line, fmt, args);
    va_end(args);
}
