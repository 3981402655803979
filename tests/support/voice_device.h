// A test device for voice talk: a TCP server on 127.0.0.1 that takes one
// connection, reads the "$"-framed packets the library sends, parses their
// RTP headers, and can send its own frames back on the same connection.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

struct VoicePacket {
    uint8_t channel;
    uint32_t frameLen; // the 16-bit length of the "$" header
    uint8_t version;
    uint8_t byte1;
    uint16_t seq;
    uint32_t timestamp;
    std::vector<uint8_t> payload;
};

class VoiceDevice {
public:
    ~VoiceDevice() { Stop(); }

    bool Listen()
    {
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (m_listen < 0 || bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            listen(m_listen, 1) != 0 || getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
            return false;
        }
        m_port = ntohs(a.sin_port);
        m_thread = std::thread([this] { Run(); });
        return true;
    }
    uint16_t Port() const { return m_port; }

    void Stop()
    {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
        if (m_conn >= 0) {
            close(m_conn);
            m_conn = -1;
        }
        if (m_listen >= 0) {
            close(m_listen);
            m_listen = -1;
        }
    }

    bool Connected() const { return m_conn >= 0; }
    std::vector<VoicePacket> Packets()
    {
        std::lock_guard<std::mutex> g(m_lock);
        return m_packets;
    }
    size_t PacketCount()
    {
        std::lock_guard<std::mutex> g(m_lock);
        return m_packets.size();
    }
    uint32_t BadBytes() const { return m_bad; }

    // Waits (bounded) until n packets arrived.
    bool WaitPackets(size_t n, int timeoutMs = 15000)
    {
        for (int waited = 0; waited < timeoutMs; waited += 10) {
            if (PacketCount() >= n) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    // Sends one "$" frame on the given channel back to the library.
    bool SendFrame(uint8_t channel, const std::vector<uint8_t>& body)
    {
        std::vector<uint8_t> f{'$', channel, static_cast<uint8_t>(body.size() >> 8), static_cast<uint8_t>(body.size())};
        f.insert(f.end(), body.begin(), body.end());
        return m_conn >= 0 && send(m_conn, f.data(), f.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(f.size());
    }

private:
    void Run()
    {
        std::vector<uint8_t> held;
        uint8_t buf[4096];
        while (!m_stop) {
            int fd = m_conn >= 0 ? m_conn.load() : m_listen;
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) {
                continue;
            }
            if (m_conn < 0) {
                m_conn = accept(m_listen, nullptr, nullptr);
                continue;
            }
            ssize_t n = recv(m_conn, buf, sizeof buf, 0);
            if (n <= 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            held.insert(held.end(), buf, buf + n);
            Parse(held);
        }
    }

    void Parse(std::vector<uint8_t>& held)
    {
        size_t at = 0;
        while (held.size() - at >= 4) {
            if (held[at] != '$') {
                ++m_bad;
                ++at;
                continue;
            }
            uint32_t len = (static_cast<uint32_t>(held[at + 2]) << 8) | held[at + 3];
            if (held.size() - at < 4 + len) {
                break;
            }
            const uint8_t* r = held.data() + at + 4;
            VoicePacket v{};
            v.channel = held[at + 1];
            v.frameLen = len;
            if (len >= 12) {
                v.version = r[0] >> 6;
                v.byte1 = r[1];
                v.seq = static_cast<uint16_t>((r[2] << 8) | r[3]);
                v.timestamp = (static_cast<uint32_t>(r[4]) << 24) | (r[5] << 16) | (r[6] << 8) | r[7];
                v.payload.assign(r + 12, r + len);
            }
            {
                std::lock_guard<std::mutex> g(m_lock);
                m_packets.push_back(std::move(v));
            }
            at += 4 + len;
        }
        held.erase(held.begin(), held.begin() + static_cast<long>(at));
    }

    int m_listen = -1;
    std::atomic<int> m_conn{-1};
    uint16_t m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<uint32_t> m_bad{0};
    std::thread m_thread;
    std::mutex m_lock;
    std::vector<VoicePacket> m_packets;
};
