// Socket layer on loopback: address classes, UDP over IPv4 and IPv6, TCP
// connect and its time-out, the NAT packet, statistics, and a multicast
// join inside a private network namespace.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "korvalen.h"
#include "log_capture.h"
#include "rtp_peer.h"

using namespace rtp_peer;

namespace {

sockaddr_storage Loopback(int family, uint16_t port, socklen_t* len)
{
    sockaddr_storage a{};
    if (family == AF_INET) {
        auto* a4 = reinterpret_cast<sockaddr_in*>(&a);
        a4->sin_family = AF_INET;
        a4->sin_port = htons(port);
        a4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        *len = sizeof *a4;
    } else {
        auto* a6 = reinterpret_cast<sockaddr_in6*>(&a);
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(port);
        a6->sin6_addr = in6addr_loopback;
        *len = sizeof *a6;
    }
    return a;
}

int Listener(int family, uint16_t* port, int backlog = 4)
{
    int fd = socket(family, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t len;
    sockaddr_storage a = Loopback(family, 0, &len);
    bind(fd, reinterpret_cast<sockaddr*>(&a), len);
    listen(fd, backlog);
    *port = BoundPort(fd);
    return fd;
}

void SendTo(int family, uint16_t port, const Bytes& data)
{
    int fd = socket(family, SOCK_DGRAM, 0);
    socklen_t len;
    sockaddr_storage a = Loopback(family, port, &len);
    sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), len);
    close(fd);
}

TEST(NetAddress, ClassifiesIpv4Ipv6AndMulticastTexts)
{
    LogCapture log;
    for (const char* yes : {"1.2.3.4", "10.0.0.1:554", "10.0.0.1/live", "255.255.255.255", "0.0.0.0"}) {
        EXPECT_EQ(NET_IsIPV4(yes), 1u) << yes;
    }
    for (const char* no : {"192.168.1.300", "1.2.3", "1.2.3.4.5", "1..2.3", "a.b.c.d", "1.2.3.4x", ""}) {
        EXPECT_EQ(NET_IsIPV4(no), 0u) << no;
    }
    EXPECT_TRUE(log.Has("NET_IsIPV4 is true, ip(10.0.0.1:554)"));
    EXPECT_EQ(log.LevelOf("NET_IsIPV4 is true"), KORVALEN_LOG_INFO);

    for (const char* yes :
         {"fe80::1", "::1", "FE80::ABCD:1", "2001:db8:0:0:0:0:0:1", "fe80::1/64", "1:2:3:4:5:6:7:8:9"}) {
        EXPECT_EQ(NET_IsIPV6(yes), 1u) << yes;
    }
    for (const char* no : {"192.168.1.300", "fe80::", "fe80::10000", "fe80::g", "abcd", "::ffff:1.2.3.4"}) {
        EXPECT_EQ(NET_IsIPV6(no), 0u) << no;
    }
    EXPECT_TRUE(log.Has("NET_IsIPV6 is true, ip(fe80::1)"));

    for (const char* yes : {"224.0.0.0", "239.255.255.255", "239.1.1.1:5000"}) {
        EXPECT_EQ(QMX_IsMulticast(yes), 1u) << yes;
    }
    for (const char* no : {"223.255.255.255", "240.0.0.0", "127.0.0.1", "fe80::1"}) {
        EXPECT_EQ(QMX_IsMulticast(no), 0u) << no;
    }

    NET_SOCKET s;
    std::memset(s.remoteIp, 'x', sizeof s.remoteIp); // no terminator left over
    s.fd = 12345;
    EXPECT_EQ(NET_CreateRecvSocket(nullptr, 0, "192.168.1.300", 5000, NET_PROTO_UDP, &s), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(s.fd, kNetInvalidSocket);
    NET_DestroySocket(&s); // a failed record destroys cleanly
    // Unknown protocols only fill the record.
    ASSERT_EQ(NET_CreateRecvSocket("1.1.1.1", 7, "10.1.2.3", 554, 3, &s), KORVALEN_OK);
    EXPECT_EQ(s.fd, kNetInvalidSocket);
    EXPECT_STREQ(s.remoteIp, "10.1.2.3");
    EXPECT_EQ(s.remotePort, 554);
    EXPECT_EQ(s.protocol, 3);
    uint8_t buf[16];
    uint32_t len = 99;
    EXPECT_EQ(NET_UdpRecvMsg(&s, buf, &len), KORVALEN_OK) << "only UDP records receive datagrams";
    EXPECT_EQ(len, 0u);
    NET_DestroySocket(&s);
}

struct UdpCase {
    int family;
    const char* local;
    const char* remote;
};

struct NetUdp : ::testing::TestWithParam<UdpCase> {};

TEST_P(NetUdp, ReceivesDatagramsWaitsAtMostHalfASecondAndReportsEmptyOnes)
{
    const UdpCase& c = GetParam();
    NET_SOCKET s;
    ASSERT_EQ(NET_CreateRecvSocket(c.local, 0, c.remote, 9000, NET_PROTO_UDP, &s), KORVALEN_OK);
    int rcvbuf = 0;
    socklen_t optlen = sizeof rcvbuf;
    getsockopt(s.fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, &optlen);
    // The kernel caps the request at net.core.rmem_max and reports double.
    long rmemMax = 0;
    std::ifstream("/proc/sys/net/core/rmem_max") >> rmemMax;
    EXPECT_EQ(rcvbuf, 2 * std::min<long>(kNetUdpRecvBuf, rmemMax)) << "2 MiB asked for";

    Bytes buf(kNetRecvMax);
    uint32_t len = 77;
    EXPECT_EQ(NET_UdpRecvMsg(&s, buf.data(), &len), KORVALEN_OK) << "nothing sent: a time-out, not an error";
    EXPECT_EQ(len, 0u);

    const Bytes big(12000, 0x42), small = {1, 2, 3};
    SendTo(c.family, BoundPort(s.fd), small);
    SendTo(c.family, BoundPort(s.fd), big);
    ASSERT_EQ(NET_UdpRecvMsg(&s, buf.data(), &len), KORVALEN_OK);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + len), small);
    ASSERT_EQ(NET_UdpRecvMsg(&s, buf.data(), &len), KORVALEN_OK);
    EXPECT_EQ(len, kNetRecvMax) << "a datagram is cut at 10240 bytes";

    LogCapture log;
    SendTo(c.family, BoundPort(s.fd), {});
    EXPECT_EQ(NET_UdpRecvMsg(&s, buf.data(), &len), KORVALEN_ERR_RECV_ZERO);
    EXPECT_TRUE(log.Has("QMX_RECVFROM zero error("));
    EXPECT_EQ(log.LevelOf("QMX_RECVFROM zero"), KORVALEN_LOG_WARN);
    EXPECT_TRUE(log.Has("NET_UdpRecvMsg failed"));

    // The same port again cannot be bound.
    NET_SOCKET again;
    const uint16_t taken = BoundPort(s.fd);
    EXPECT_EQ(NET_CreateRecvSocket(c.local, taken, c.remote, 9000, NET_PROTO_UDP, &again), KORVALEN_ERR_SOCKET_CREATE);
    EXPECT_TRUE(log.Has("QMX_BIND fail, pcLocalIP[" + std::string(c.local ? c.local : "") + "], LocalPort[" +
                        std::to_string(taken) + "]"));
    EXPECT_EQ(again.fd, kNetInvalidSocket);
    NET_DestroySocket(&s);
    EXPECT_EQ(s.fd, kNetInvalidSocket);
}

INSTANTIATE_TEST_SUITE_P(Loopback, NetUdp,
                         ::testing::Values(UdpCase{AF_INET, "127.0.0.1", "127.0.0.1"},
                                           UdpCase{AF_INET, nullptr, "10.9.8.7"}, UdpCase{AF_INET6, "::1", "::1"},
                                           UdpCase{AF_INET6, "", "fe80::1"}));

TEST(NetTcp, ConnectsSendsTheNatPacketAndSeesThePeerClose)
{
    for (int family : {AF_INET, AF_INET6}) {
        uint16_t port = 0;
        const int lfd = Listener(family, &port);
        NET_SOCKET s;
        const char* remote = family == AF_INET ? "127.0.0.1" : "::1";
        ASSERT_EQ(NET_CreateRecvSocket(nullptr, 0, remote, port, NET_PROTO_TCP_FRAMED, &s), KORVALEN_OK);
        const int peer = accept(lfd, nullptr, nullptr);
        ASSERT_GE(peer, 0);

        NET_NAT_PARAM nat;
        NET_SetNatParam(1, "ABCDEFGHIJKLMNOPQRSTU", &nat); // longer than 16: cut, no terminator
        ASSERT_EQ(NET_SendNatPkt(&s, &nat), KORVALEN_OK);
        Bytes got(64);
        size_t have = 0;
        while (have < kNetNatPacketLen) {
            const ssize_t n = recv(peer, got.data() + have, got.size() - have, 0);
            ASSERT_GT(n, 0);
            have += static_cast<size_t>(n);
        }
        ASSERT_EQ(have, kNetNatPacketLen);
        got.resize(have);
        const Bytes id = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P'};
        Bytes expect = {0x24, 0, 0, 24, 0xFF, 0xFD, 0, 40, 0, 1};
        expect.insert(expect.end(), id.begin(), id.end());
        expect.insert(expect.end(), {0, 0});
        EXPECT_EQ(got, expect);

        NET_SetNatParam(1, "cam7", &nat);
        EXPECT_EQ(Bytes(nat.id, nat.id + 5), (Bytes{'c', 'a', 'm', '7', 0}));

        Bytes buf(kNetRecvMax);
        uint32_t len = 5;
        EXPECT_EQ(NET_TcpRecvMsg(&s, buf.data(), &len), KORVALEN_OK);
        EXPECT_EQ(len, 0u) << "quiet peer: a time-out";
        const Bytes frame = {0x24, 0, 0, 2, 0xAB, 0xCD};
        send(peer, frame.data(), frame.size(), 0);
        ASSERT_EQ(NET_TcpRecvMsg(&s, buf.data(), &len), KORVALEN_OK);
        EXPECT_EQ(Bytes(buf.begin(), buf.begin() + len), frame);

        LogCapture log;
        close(peer);
        EXPECT_EQ(NET_TcpRecvMsg(&s, buf.data(), &len), KORVALEN_ERR_RECV_ZERO);
        EXPECT_TRUE(log.Has("QMX_RECVFROM zero"));
        NET_DestroySocket(&s);
        close(lfd);
        EXPECT_EQ(NET_Send(&s, frame.data(), 6), KORVALEN_ERR_SEND);
        EXPECT_TRUE(log.Has("send failed"));
        EXPECT_EQ(NET_SendNatPkt(&s, &nat), KORVALEN_ERR_SEND);
        EXPECT_TRUE(log.Has("NET_TcpSendMsg failed"));
    }
}

TEST(NetTcp, RefusedAndUnansweredConnectsFail)
{
    LogCapture log;
    uint16_t port = 0;
    close(Listener(AF_INET, &port)); // nobody listens there any more
    NET_SOCKET s;
    EXPECT_EQ(NET_CreateRecvSocket(nullptr, 0, "127.0.0.1", port, NET_PROTO_TCP, &s), KORVALEN_ERR_SOCKET_CREATE);
    EXPECT_TRUE(log.Has("connect failed,system_error(" + std::to_string(ECONNREFUSED) + ")"));
    EXPECT_EQ(s.fd, kNetInvalidSocket);

    // A listener whose queue is full drops further SYNs: the connect waits
    // for the configured time-out.
    EXPECT_EQ(NET_GetTcpOutTime(), kNetTcpOutTimeDefault);
    ASSERT_EQ(Korvalen_SetTcpOutTime(1), 1);
    const int lfd = Listener(AF_INET, &port, 0);
    std::vector<NET_SOCKET> fill;
    uint32_t r = KORVALEN_OK;
    for (int i = 0; i < 8 && r == KORVALEN_OK; ++i) {
        fill.emplace_back();
        r = NET_CreateRecvSocket(nullptr, 0, "127.0.0.1", port, NET_PROTO_TCP, &fill.back());
    }
    EXPECT_EQ(r, KORVALEN_ERR_SOCKET_CREATE);
    EXPECT_TRUE(log.Has("connect failed,system_error(" + std::to_string(ETIMEDOUT) + ")"));
    for (NET_SOCKET& f : fill) {
        NET_DestroySocket(&f);
    }
    close(lfd);
    Korvalen_SetTcpOutTime(kNetTcpOutTimeDefault);

    EXPECT_EQ(NET_CreateRecvSocket(nullptr, 0, "999.1.1.1", 80, NET_PROTO_TCP, &s), KORVALEN_ERR_INVALID_PARAM);
}

TEST(NetStats, BitRateAveragesTheLastTwoIntervals)
{
    NET_BITRATE b{};
    NET_CalcBitRateAt(1000, &b, 100, 0);
    NET_CalcBitRateAt(1500, &b, 102, 500); // 2500 ms: still the same interval
    EXPECT_EQ(b.average, 0u);
    NET_CalcBitRateAt(2500, &b, 102, 501); // 5000 bytes in 2501 ms
    EXPECT_EQ(b.lastRate, 5000u * 1000 / 2501);
    EXPECT_EQ(b.average, 5000u * 1000 / 2501) << "the first interval stands for both";
    NET_CalcBitRateAt(10000, &b, 105, 501); // 10000 bytes in 3000 ms
    EXPECT_EQ(b.lastRate, 3333u);
    EXPECT_EQ(b.average, (5000u * 1000 / 2501 + 3333) / 2);
    // The millisecond field borrows from the seconds.
    NET_CalcBitRateAt(3000, &b, 107, 999); // 2498 ms
    NET_CalcBitRateAt(0, &b, 108, 2);      // 2501 ms
    EXPECT_EQ(b.lastRate, 3000u * 1000 / 2501);
}

TEST(NetStats, LostPacketsOverFiveOneSecondSlots)
{
    NET_LOSTSTAT s{};
    // Slot k starts at 10 s + 1001 ms * k; the packet that opens a new slot
    // is still counted in the old one.
    const auto at = [&](uint32_t k) {
        const uint32_t ms = 10000 + 1001 * k;
        NET_CountRecvPacketAt(&s, ms / 1000, ms % 1000);
    };
    for (uint32_t k = 0; k < 7; ++k) {
        for (int i = 0; i < 10; ++i) {
            at(k);
        }
        NET_CountLostPacket(&s);
        NET_CountLostPacket(&s);
    }
    at(7);
    EXPECT_EQ(s.recvTotal, 50u) << "five slots of ten";
    EXPECT_EQ(s.lostTotal, 10u);
    NET_ResetLostPacket(&s);
    for (uint32_t k = 8; k < 13; ++k) {
        at(k);
    }
    EXPECT_EQ(s.recvTotal, 5u);
    EXPECT_EQ(s.lostTotal, 0u);
}

// Inside a private network namespace: loopback up and the multicast range
// routed to it, so nothing leaves the machine.
TEST(NetMulticast, JoinsTheGroupOnItsPortAndReceivesFfmpegMulticast)
{
    const std::string file = Fixture("rtp_h264.h264");
    ASSERT_FALSE(file.empty());
    std::string skip;
    std::thread t([&] {
        if (unshare(CLONE_NEWNET) != 0) {
            skip = std::string("no private network namespace: ") + std::strerror(errno);
            return;
        }
        if (std::system("ip link set lo up && ip route add 239.0.0.0/8 dev lo") != 0) {
            skip = "cannot set up loopback multicast in the namespace";
            return;
        }
        const uint16_t group = 5000;
        NET_SOCKET s;
        ASSERT_EQ(NET_CreateRecvSocket("127.0.0.1", 6000, "239.1.1.1", group, NET_PROTO_UDP, &s), KORVALEN_OK);
        EXPECT_EQ(BoundPort(s.fd), group) << "bound on the group's port, not the local one";
        const auto joined = [] {
            std::ifstream igmp("/proc/thread-self/net/igmp");
            std::string all((std::istreambuf_iterator<char>(igmp)), std::istreambuf_iterator<char>());
            return all.find("010101EF") != std::string::npos;
        };
        EXPECT_TRUE(joined());
        int code = -1;
        const std::string cmd = std::string("ffmpeg -hide_banner -loglevel error -re -f h264 -i ") + file +
                                " -c:v copy -f rtp 'rtp://239.1.1.1:5000?ttl=0&localaddr=127.0.0.1'";
        std::vector<Bytes> packets = ReceiveWhile(&s, cmd, &code);
        EXPECT_EQ(code, 0);
        Assembly a = Spell(packets);
        EXPECT_EQ(FrameHashes(WriteFrames("mcast.h264", a.frames), "h264"), FrameHashes(file, "h264"));
        NET_DestroySocket(&s);
        EXPECT_FALSE(joined()) << "leaving the stream drops the membership";
    });
    t.join();
    if (!skip.empty()) {
        GTEST_SKIP() << skip;
    }
}

} // namespace
