// Socket layer: one network endpoint per live stream or voice session.
// Classifies the remote address, binds or connects, joins IPv4 multicast
// groups, receives with a bounded wait, sends, and keeps traffic statistics.
#pragma once

#include <atomic>
#include <cstdint>

constexpr int32_t NET_PROTO_UDP = 0;
constexpr int32_t NET_PROTO_TCP = 1;
constexpr int32_t NET_PROTO_TCP_FRAMED = 4;

constexpr int kNetInvalidSocket = -1;
constexpr uint32_t kNetIpLen = 64;
constexpr uint32_t kNetRecvMax = 10240;       // one receive never returns more
constexpr uint32_t kNetRecvWaitMs = 500;      // bounds how long a stop request waits
constexpr uint32_t kNetUdpRecvBuf = 0x200000; // absorbs bursts of high-rate video
constexpr uint32_t kNetTcpOutTimeDefault = 4; // seconds
constexpr uint32_t kNetNatPacketLen = 28;
constexpr uint32_t kNetNatIdLen = 16;

struct NET_SOCKET {
    char localIp[kNetIpLen];
    char remoteIp[kNetIpLen];
    uint16_t localPort;
    uint16_t remotePort;
    int32_t protocol;
    int fd = kNetInvalidSocket;
};

struct NET_NAT_PARAM {
    uint32_t send; // 1: send the NAT packet once
    uint8_t id[kNetNatIdLen];
};

// Received bit rate, averaged over the last two intervals of >= 2.5 s.
// The published figures (average, recvTotal, lostTotal) are written by the
// counting thread and read by callers through NET_Published.
struct NET_BITRATE {
    uint32_t average; // bytes per second
    uint32_t lastRate;
    uint32_t startSec;
    uint32_t startMs;
    uint64_t bytes;
};

// Received and lost packets over the last five one-second slots.
struct NET_LOSTSTAT {
    uint32_t recvTotal;
    uint32_t lostTotal;
    uint32_t recv[5]; // current slot first
    uint32_t lost[5];
    uint32_t startSec;
    uint32_t startMs;
    uint32_t resetPending; // set by NET_ResetLostPacket, carried out by the counting thread
};

// 1 when text is four decimal groups below 256, ending at ':', '/' or its end.
uint32_t NET_IsIPV4(const char* text);
// 1 when text is hexadecimal groups below 0x10000 separated by ':'.
uint32_t NET_IsIPV6(const char* text);
// 1 when an IPv4 text lies in 224.0.0.0/4.
uint32_t QMX_IsMulticast(const char* text);

// Opens the endpoint. 0, 2 bad address or name lookup, 4 socket, bind,
// option, join or connect failure. Protocols other than 0, 1 and 4 only fill
// the record.
uint32_t NET_CreateRecvSocket(const char* localIp, uint16_t localPort, const char* remoteIp, uint16_t remotePort,
                              int32_t protocol, NET_SOCKET* sock);
// Leaves a multicast group, closes and zeroes the record.
void NET_DestroySocket(NET_SOCKET* sock);

// One datagram into buf (which holds kNetRecvMax bytes). 0 with *len 0 when
// nothing came within 500 ms; 5 receive error, 6 zero-length receive.
uint32_t NET_UdpRecvMsg(NET_SOCKET* sock, uint8_t* buf, uint32_t* len);
// What the stream holds, at most kNetRecvMax bytes. 0 with *len 0 on time-out;
// 5 error, 6 peer closed.
uint32_t NET_TcpRecvMsg(NET_SOCKET* sock, uint8_t* buf, uint32_t* len);
// One send; 11 when it fails. A short send is not retried.
uint32_t NET_Send(NET_SOCKET* sock, const uint8_t* data, uint32_t len);

void NET_SetNatParam(uint32_t send, const char* id, NET_NAT_PARAM* nat);
// Builds the 28-byte NAT packet.
void NET_MakeNatPkt(const NET_NAT_PARAM* nat, uint8_t out[kNetNatPacketLen]);
// Sends it on the stream's connection; 11 on failure.
uint32_t NET_SendNatPkt(NET_SOCKET* sock, const NET_NAT_PARAM* nat);
uint32_t NET_TcpSendMsg(NET_SOCKET* sock, const NET_NAT_PARAM* nat);

uint32_t QMX_AddMulticast(int fd, const char* localIp, uint16_t localPort, const char* groupIp, uint16_t groupPort);
uint32_t QMX_DropMulticast(int fd, const char* localIp, uint16_t localPort, const char* groupIp, uint16_t groupPort);

// Process-wide TCP connect time-out in seconds, read at every connect.
uint32_t NET_GetTcpOutTime();

// Traffic statistics. The At forms take the clock reading explicitly.
void NET_CalcBitRate(uint32_t bytes, NET_BITRATE* stat);
void NET_CalcBitRateAt(uint32_t bytes, NET_BITRATE* stat, uint32_t nowSec, uint32_t nowMs);
void NET_CountRecvPacket(NET_LOSTSTAT* stat);
void NET_CountRecvPacketAt(NET_LOSTSTAT* stat, uint32_t nowSec, uint32_t nowMs);
void NET_CountLostPacket(NET_LOSTSTAT* stat);
// Asks the counting thread to forget the lost packets (at its next count).
void NET_ResetLostPacket(NET_LOSTSTAT* stat);
// Reads a figure the counting thread publishes.
inline uint32_t NET_Published(uint32_t& figure)
{
    return std::atomic_ref<uint32_t>(figure).load(std::memory_order_relaxed);
}
// Clock for the statistics: whole seconds and the millisecond field.
void NET_StatClock(uint32_t* sec, uint32_t* ms);

// Process-wide TCP connect time-out for new streams, in seconds.
uint32_t Player_SetTcpOutTime(uint32_t seconds);
