#include "sdk/sdk_frame.h"

#include <atomic>

#include "port/port_table.h"

namespace {
thread_local uint32_t t_lastError = 0;
// The locks live for the whole process so that a call made before
// Korvalen_Init (or after Korvalen_Cleanup) finds a valid lock and an empty
// port table instead of freed memory.
std::atomic<uint32_t> g_maxDecChl{kPortCount};
} // namespace

void SDK_SetLastError(uint32_t err)
{
    t_lastError = err;
}

uint32_t SDK_LastError()
{
    return t_lastError;
}

uint32_t SDK_MaxDecChl()
{
    return g_maxDecChl.load();
}

void SDK_SetMaxDecChl(uint32_t n)
{
    g_maxDecChl.store(n);
}

bool SDK_CheckPort(uint32_t port)
{
    if (port < kPortCount) {
        return true;
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get Port[%d] fail", static_cast<int>(port));
    SDK_SetLastError(KORVALEN_ERR_PORT);
    return false;
}

bool SDK_ChannelsAvailable(uint32_t port, const char* api)
{
    if (Player_ActivePortCount() >= SDK_MaxDecChl()) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] %s fail, Port not enough", port, api);
        SDK_SetLastError(KORVALEN_ERR_PORT_NOT_ENOUGH);
        return false;
    }
    return true;
}

int32_t SDK_Finish(uint32_t port, const SdkCall& c, uint32_t err)
{
    if (err != KORVALEN_OK) {
        if (c.failLine) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            if (c.flags & SDK_FAIL_NO_PORT) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, c.failLine, err);
            } else {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, c.failLine, port, err);
            }
#pragma GCC diagnostic pop
        } else if (c.flags & SDK_FAIL_NO_PORT) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call %s fail, %s fail, error(0x%x)", c.api, c.inner, err);
        } else {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Port[%03d] %s fail, %s fail, error(0x%x)", port, c.api, c.inner,
                         err);
        }
        SDK_SetLastError(err);
        return 0;
    }
    if (!(c.flags & SDK_HOT)) {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] %s Success", port, c.api);
    }
    return 1;
}

int32_t SDK_GlobalFinish(const char* api, const char* inner, uint32_t err)
{
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call %s fail, %s fail, error(0x%x)", api, inner, err);
        return SDK_Fail(err);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call %s Success", api);
    return 1;
}
