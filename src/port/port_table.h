// The port table: 256 slots allocated round-robin, and the player layer's
// start-up and clean-up.
#pragma once

#include <cstdint>
#include <mutex>

#include "korvalen_types.h"
#include "log/log.h"
#include "port/port.h"

constexpr uint32_t kPortCount = 256;

// The lock of each port number, held by every exported per-port call.
std::recursive_mutex& Port_Lock(uint32_t port);

uint32_t Player_Startup();
void Player_Cleanup();

uint32_t Player_AllocPort(uint32_t* port);
// Frees the port after closing its source; a free port is ignored.
void Player_FreePort(uint32_t port);
// The record, or null (also for numbers of 256 and more). Takes no lock.
PortRecord* Player_GetPort(uint32_t port);

// Runs f on the port's record; a port without one answers KORVALEN_ERR_PORT.
template <typename F> uint32_t Player_OnPort(uint32_t port, F&& f)
{
    PortRecord* rec = Player_GetPort(port);
    return rec ? f(*rec) : KORVALEN_ERR_PORT;
}

// As Player_OnPort, and logs "Get port[%d] fail" for a port without one.
template <typename F> uint32_t Player_OnPortOrLog(uint32_t port, F&& f)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    return f(*rec);
}

// Allocated ports playing a source (input, network, file or HLS).
uint32_t Player_ActivePortCount();

uint32_t Player_SetPacketBuffer(uint32_t port, uint32_t bufferSize, uint32_t delayRenderTime);
uint32_t Player_SetBufferCtrl(uint32_t port, uint32_t bufferCtrl);
uint32_t Player_GetPacketQueueStart(uint32_t port, uint32_t* frameCount, uint32_t* occupied);
