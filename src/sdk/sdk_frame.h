// The frame every exported function shares: last error, init counter, the
// 256 port locks, the port check and the standard log lines.
#pragma once

#include <cstdint>
#include <mutex>

#include "korvalen_types.h"
#include "log/log.h"
#include "port/port_table.h"

constexpr uint32_t kVersionPacked = 0x002E0502;
constexpr const char* kVersionText = "2.5.0046";
// What SDK_Run returns when the frame itself refused the call (already
// logged and stored in the last error).
constexpr uint32_t kSdkRejected = 0xFFFFFFFFu;

enum SdkFlags : uint32_t {
    SDK_STANDARD = 0,
    SDK_HOT = 1u << 0,           // hot path: no information lines
    SDK_FAIL_NO_PORT = 1u << 1,  // failure line without the port
    SDK_OPENING = 1u << 2,       // opening call: decode-channel check
    SDK_OWN_CALL_LINE = 1u << 3, // the wrapper writes its own "Call" line
};

struct SdkCall {
    const char* api;   // exported name, e.g. "Korvalen_StartPlay"
    const char* inner; // inner name written in the failure line
    uint32_t flags = SDK_STANDARD;
    // Failure line of its own, when the wrapper's text differs from the
    // standard one. Formatted with (port, error), or (error) alone with
    // SDK_FAIL_NO_PORT; a format may leave the error out.
    const char* failLine = nullptr;
};

void SDK_SetLastError(uint32_t err);
uint32_t SDK_LastError();

// Maximum decode channel number (default 256).
uint32_t SDK_MaxDecChl();
void SDK_SetMaxDecChl(uint32_t n);

// Checks the port range; logs "Get Port[%d] fail" and stores 259 when bad.
bool SDK_CheckPort(uint32_t port);

// Steps 1-4 of the standard wrapper: call line, port check, pointer check,
// port lock (with the decode-channel check for opening calls), inner call.
// Returns the inner code, or kSdkRejected.
template <class F> uint32_t SDK_Run(uint32_t port, const SdkCall& c, bool ptrsOk, F&& inner);

// Steps 5-6: failure line and last error, or the success line. 1 or 0.
int32_t SDK_Finish(uint32_t port, const SdkCall& c, uint32_t err);

// The whole standard wrapper.
template <class F> int32_t SDK_PortCall(uint32_t port, const SdkCall& c, bool ptrsOk, F&& inner)
{
    uint32_t err = SDK_Run(port, c, ptrsOk, static_cast<F&&>(inner));
    return err == kSdkRejected ? 0 : SDK_Finish(port, c, err);
}

// Stores err in the last error and returns 0.
inline int32_t SDK_Fail(uint32_t err)
{
    SDK_SetLastError(err);
    return 0;
}

// Finish of a process-wide call (no port): "Call %s Success" or the
// failure line with the last error. 1 or 0.
int32_t SDK_GlobalFinish(const char* api, const char* inner, uint32_t err);

// Decode-channel check of opening calls; logs and stores 16 when refused.
bool SDK_ChannelsAvailable(uint32_t port, const char* api);

template <class F> uint32_t SDK_Run(uint32_t port, const SdkCall& c, bool ptrsOk, F&& inner)
{
    if (!(c.flags & (SDK_HOT | SDK_OWN_CALL_LINE))) {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] %s", port, c.api);
    }
    if (!SDK_CheckPort(port)) {
        return kSdkRejected;
    }
    if (!ptrsOk) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Port[%03d] %s fail, invalid param", port, c.api);
        SDK_SetLastError(KORVALEN_ERR_INVALID_PARAM);
        return kSdkRejected;
    }
    std::lock_guard<std::recursive_mutex> lock(Port_Lock(port));
    if ((c.flags & SDK_OPENING) && !SDK_ChannelsAvailable(port, c.api)) {
        return kSdkRejected;
    }
    return inner();
}
