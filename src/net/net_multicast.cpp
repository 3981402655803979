// IPv4 multicast membership. The socket binds the group's port, not the
// local one, so that several receivers of one group can share it.
#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>

#include "korvalen_types.h"
#include "log/log.h"
#include "net/net_socket.h"

namespace {

bool Membership(const char* localIp, const char* groupIp, ip_mreq* m)
{
    *m = ip_mreq{};
    if (!groupIp || inet_pton(AF_INET, groupIp, &m->imr_multiaddr) != 1) {
        return false;
    }
    m->imr_interface.s_addr = htonl(INADDR_ANY);
    in_addr local{};
    if (localIp && *localIp && inet_pton(AF_INET, localIp, &local) == 1) {
        m->imr_interface = local;
    }
    return true;
}

uint32_t OptionFail(const char* groupIp, const char* localIp)
{
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_SETSOCKOPT failed, RemoteIP[%s], LocalIP[%s]", groupIp ? groupIp : "",
                 localIp ? localIp : "");
    return 1;
}

} // namespace

uint32_t QMX_AddMulticast(int fd, const char* localIp, uint16_t, const char* groupIp, uint16_t groupPort)
{
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return OptionFail(groupIp, localIp);
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(groupPort);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_BIND failed, LocalPort[%d], systemerror(%d)", groupPort, errno);
        return 1;
    }
    // The size goes in as an 8-byte value; the kernel reads its low int.
    uint64_t size = kNetUdpRecvBuf;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
        return OptionFail(groupIp, localIp);
    }
    ip_mreq m;
    if (!Membership(localIp, groupIp, &m) || setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) != 0) {
        return OptionFail(groupIp, localIp);
    }
    return KORVALEN_OK;
}

uint32_t QMX_DropMulticast(int fd, const char* localIp, uint16_t, const char* groupIp, uint16_t)
{
    ip_mreq m;
    if (!Membership(localIp, groupIp, &m) || setsockopt(fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &m, sizeof m) != 0) {
        OptionFail(groupIp, localIp);
        return 1;
    }
    return KORVALEN_OK;
}
