// The live network source: RTP over UDP (unicast or multicast) or "$"-framed
// over TCP, received on its own thread, video through the reordering queue.
#pragma once

#include <cstdint>

#include "net/net_socket.h"
#include "source/source.h"

struct NETSRC_PARAMS {
    const char* localIp;
    uint16_t localPort;
    const char* remoteIp;
    uint16_t remotePort;
    uint32_t protocol; // NET_PROTO_*
};

extern const SOURCE_OPS kNetSourceOps;

// Controls of an open network source (state from kNetSourceOps.open).
void NETSRC_SetNat(void* state, uint32_t natMode, const char* session);
// The stream's socket: voice talk sends on its TCP connection.
NET_SOCKET* NETSRC_Socket(void* state);
// The local port the socket is bound to; 7 when it has none.
uint32_t NETSRC_LocalPort(void* state, uint32_t* rtpPort, uint32_t* rtcpPort);
