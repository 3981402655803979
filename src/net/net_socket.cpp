// Endpoint creation, receive with a bounded wait, send and the NAT packet.
#include "net/net_socket.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "korvalen_types.h"
#include "log/log.h"
#include "media/rtp_bytes.h"

namespace {

std::atomic<uint32_t> g_tcpOutTime{kNetTcpOutTimeDefault};

void CopyIp(char* dst, const char* src)
{
    std::memset(dst, 0, kNetIpLen);
    if (src) {
        std::strncpy(dst, src, kNetIpLen - 1);
    }
}

void CloseFd(int* fd)
{
    if (*fd != kNetInvalidSocket) {
        close(*fd);
        *fd = kNetInvalidSocket;
    }
}

// The address part of an IPv4 text that may carry ":port" or "/path".
void HostPart(const char* text, char host[kNetIpLen])
{
    std::memset(host, 0, kNetIpLen);
    for (uint32_t i = 0; i + 1 < kNetIpLen && text[i] && text[i] != ':' && text[i] != '/'; ++i) {
        host[i] = text[i];
    }
}

// Waits for the socket to become readable; false on time-out.
bool WaitReadable(int fd, uint32_t ms)
{
    pollfd p{fd, POLLIN, 0};
    int r;
    do {
        r = poll(&p, 1, static_cast<int>(ms));
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

uint32_t BindUdp(int fd, int family, const char* localIp, uint16_t localPort)
{
    int r;
    if (family == AF_INET) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(localPort);
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        in_addr local{};
        if (localIp && *localIp && inet_pton(AF_INET, localIp, &local) == 1 && local.s_addr != 0) {
            a.sin_addr = local;
        }
        r = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    } else {
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_port = htons(localPort);
        a.sin6_addr = in6addr_any;
        in6_addr local{};
        if (localIp && *localIp && inet_pton(AF_INET6, localIp, &local) == 1 && !IN6_IS_ADDR_UNSPECIFIED(&local)) {
            a.sin6_addr = local;
        }
        r = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    if (r != 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_BIND fail, pcLocalIP[%s], LocalPort[%d]", localIp ? localIp : "",
                     localPort);
        return KORVALEN_ERR_SOCKET_CREATE;
    }
    int size = static_cast<int>(kNetUdpRecvBuf);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_SETSOCKOPT failed");
        return KORVALEN_ERR_SOCKET_CREATE;
    }
    return KORVALEN_OK;
}

uint32_t ConnectFail(int err)
{
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "connect failed,system_error(%d)", err);
    return KORVALEN_ERR_SOCKET_CREATE;
}

// Non-blocking connect bounded by the process-wide time-out, then back to
// blocking mode.
uint32_t ConnectTcp(int fd, const sockaddr* dest, socklen_t destLen)
{
    int on = 1;
    ioctl(fd, FIONBIO, &on);
    if (connect(fd, dest, destLen) == 0) {
        // Linux may finish a loopback connect at once.
        on = 0;
        ioctl(fd, FIONBIO, &on);
        return KORVALEN_OK;
    }
    if (errno != EINPROGRESS) {
        return ConnectFail(errno);
    }
    pollfd p{fd, POLLOUT, 0};
    int r;
    do {
        r = poll(&p, 1, static_cast<int>(g_tcpOutTime.load() * 1000));
    } while (r < 0 && errno == EINTR);
    if (r <= 0) {
        return ConnectFail(r == 0 ? ETIMEDOUT : errno);
    }
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
        return ConnectFail(err);
    }
    on = 0;
    ioctl(fd, FIONBIO, &on);
    return KORVALEN_OK;
}

uint32_t OpenTcp(int family, const char* remoteIp, uint16_t remotePort, int* fd)
{
    sockaddr_storage dest{};
    socklen_t destLen = 0;
    if (family == AF_INET6) {
        auto* a = reinterpret_cast<sockaddr_in6*>(&dest);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(remotePort);
        if (inet_pton(AF_INET6, remoteIp, &a->sin6_addr) != 1) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        destLen = sizeof *a;
        *fd = socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
    } else {
        char host[kNetIpLen];
        HostPart(remoteIp, host);
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* res = nullptr;
        if (getaddrinfo(host, nullptr, &hints, &res) != 0 || !res) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "getaddrinfo error");
            return KORVALEN_ERR_INVALID_PARAM;
        }
        std::memcpy(&dest, res->ai_addr, res->ai_addrlen);
        destLen = res->ai_addrlen;
        reinterpret_cast<sockaddr_in*>(&dest)->sin_port = htons(remotePort);
        *fd = socket(res->ai_family, res->ai_socktype, IPPROTO_TCP);
        freeaddrinfo(res);
    }
    if (*fd < 0) {
        *fd = kNetInvalidSocket;
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Create socket failed");
        return KORVALEN_ERR_SOCKET_CREATE;
    }
    return ConnectTcp(*fd, reinterpret_cast<sockaddr*>(&dest), destLen);
}

} // namespace

uint32_t NET_GetTcpOutTime()
{
    return g_tcpOutTime.load();
}

uint32_t Player_SetTcpOutTime(uint32_t seconds)
{
    g_tcpOutTime.store(seconds);
    return KORVALEN_OK;
}

uint32_t NET_CreateRecvSocket(const char* localIp, uint16_t localPort, const char* remoteIp, uint16_t remotePort,
                              int32_t protocol, NET_SOCKET* sock)
{
    if (!sock) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    *sock = NET_SOCKET{}; // a failed create leaves a record that destroys cleanly
    if (!remoteIp) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    int family;
    if (NET_IsIPV4(remoteIp)) {
        family = AF_INET;
    } else if (NET_IsIPV6(remoteIp)) {
        family = AF_INET6;
    } else {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    int fd = kNetInvalidSocket;
    uint32_t ret = KORVALEN_OK;

    if (protocol == NET_PROTO_UDP) {
        fd = socket(family, SOCK_DGRAM, 0);
        if (fd < 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Create socket failed");
            return KORVALEN_ERR_SOCKET_CREATE;
        }
        if (family == AF_INET && QMX_IsMulticast(remoteIp)) {
            if (QMX_AddMulticast(fd, localIp, localPort, remoteIp, remotePort) != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_AddMulticast failed");
                ret = KORVALEN_ERR_SOCKET_CREATE;
            }
        } else {
            ret = BindUdp(fd, family, localIp, localPort);
        }
    } else if (protocol == NET_PROTO_TCP || protocol == NET_PROTO_TCP_FRAMED) {
        ret = OpenTcp(family, remoteIp, remotePort, &fd);
    }
    if (ret != KORVALEN_OK) {
        CloseFd(&fd);
        return ret;
    }

    CopyIp(sock->localIp, localIp);
    CopyIp(sock->remoteIp, remoteIp);
    sock->localPort = localPort;
    sock->remotePort = remotePort;
    sock->protocol = protocol;
    sock->fd = fd;
    return KORVALEN_OK;
}

void NET_DestroySocket(NET_SOCKET* sock)
{
    if (!sock) {
        return;
    }
    if (sock->fd != kNetInvalidSocket && NET_IsIPV4(sock->remoteIp) && QMX_IsMulticast(sock->remoteIp)) {
        QMX_DropMulticast(sock->fd, sock->localIp, sock->localPort, sock->remoteIp, sock->remotePort);
    }
    CloseFd(&sock->fd);
    *sock = NET_SOCKET{};
}

uint32_t NET_UdpRecvMsg(NET_SOCKET* sock, uint8_t* buf, uint32_t* len)
{
    if (!sock || !buf || !len) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    *len = 0;
    if (sock->protocol != NET_PROTO_UDP) {
        return KORVALEN_OK;
    }
    if (!WaitReadable(sock->fd, kNetRecvWaitMs)) {
        return KORVALEN_OK;
    }
    const ssize_t n = recvfrom(sock->fd, buf, kNetRecvMax, 0, nullptr, nullptr);
    if (n < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_RECVFROM failed error(%d)", errno);
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "NET_UdpRecvMsg failed");
        return KORVALEN_ERR_RECV;
    }
    if (n == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "QMX_RECVFROM zero error(%d)", errno);
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "NET_UdpRecvMsg failed");
        return KORVALEN_ERR_RECV_ZERO;
    }
    *len = static_cast<uint32_t>(n);
    return KORVALEN_OK;
}

uint32_t NET_TcpRecvMsg(NET_SOCKET* sock, uint8_t* buf, uint32_t* len)
{
    if (!sock || !buf || !len) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    *len = 0;
    if (!WaitReadable(sock->fd, kNetRecvWaitMs)) {
        return KORVALEN_OK;
    }
    const ssize_t n = recv(sock->fd, buf, kNetRecvMax, 0);
    if (n < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "NET_TcpRecvMsg failed");
        return KORVALEN_ERR_RECV;
    }
    if (n == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "QMX_RECVFROM zero");
        return KORVALEN_ERR_RECV_ZERO;
    }
    *len = static_cast<uint32_t>(n);
    return KORVALEN_OK;
}

uint32_t NET_Send(NET_SOCKET* sock, const uint8_t* data, uint32_t len)
{
    if (!sock || sock->fd == kNetInvalidSocket || send(sock->fd, data, len, MSG_NOSIGNAL) <= 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "send failed");
        return KORVALEN_ERR_SEND;
    }
    return KORVALEN_OK;
}

void NET_SetNatParam(uint32_t send, const char* id, NET_NAT_PARAM* nat)
{
    if (!nat) {
        return;
    }
    nat->send = send;
    std::memset(nat->id, 0, kNetNatIdLen);
    // At most 16 bytes; a 16-byte identifier has no terminator.
    for (uint32_t i = 0; id && i < kNetNatIdLen && id[i]; ++i) {
        nat->id[i] = static_cast<uint8_t>(id[i]);
    }
}

void NET_MakeNatPkt(const NET_NAT_PARAM* nat, uint8_t out[kNetNatPacketLen])
{
    out[0] = 0x24;
    out[1] = 0;
    RTP_PutBe16(out + 2, kNetNatPacketLen - 4);
    RTP_PutBe16(out + 4, 0xFFFD);
    RTP_PutBe16(out + 6, 40);
    RTP_PutBe16(out + 8, 1);
    std::memcpy(out + 10, nat->id, kNetNatIdLen);
    RTP_PutBe16(out + 26, 0);
}

uint32_t NET_SendNatPkt(NET_SOCKET* sock, const NET_NAT_PARAM* nat)
{
    if (!nat) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint8_t pkt[kNetNatPacketLen];
    NET_MakeNatPkt(nat, pkt);
    if (NET_Send(sock, pkt, kNetNatPacketLen) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "NET_TcpSendMsg failed");
        return KORVALEN_ERR_SEND;
    }
    return KORVALEN_OK;
}

uint32_t NET_TcpSendMsg(NET_SOCKET* sock, const NET_NAT_PARAM* nat)
{
    return NET_SendNatPkt(sock, nat);
}
