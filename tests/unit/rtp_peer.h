// Helpers for tests against real RTP senders (ffmpeg, GStreamer) on
// loopback: fixtures, a bounded receive loop, frame assembly and the ffmpeg
// per-frame hash oracle.
#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "codec_media.h"
#include "net/net_socket.h"
#include "platform/platform.h"
#include "rtp/rtp.h"
#include "test_env.h"

namespace rtp_peer {

using ::Bytes;

// Media made by scripts/make_fixtures.sh; made on demand when missing.
inline std::string Fixture(const std::string& name)
{
    const std::string dir = KORVALEN_FIXTURES;
    const std::string path = dir + "/" + name;
    if (!FileExists(path)) {
        // Tests run in parallel: one of them makes the media, the others wait.
        const std::string cmd = "flock " + dir + ".lock " + std::string(KORVALEN_SOURCE_DIR) +
                                "/scripts/make_fixtures.sh " + dir + " >/dev/null";
        if (std::system(cmd.c_str()) != 0) {
            return "";
        }
    }
    return FileExists(path) ? path : "";
}

inline uint16_t BoundPort(int fd)
{
    sockaddr_storage a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return a.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&a)->sin6_port)
                                   : ntohs(reinterpret_cast<sockaddr_in*>(&a)->sin_port);
}

inline std::string Replace(std::string s, const std::string& key, const std::string& value)
{
    for (size_t at = s.find(key); at != std::string::npos; at = s.find(key, at + value.size())) {
        s.replace(at, key.size(), value);
    }
    return s;
}

// Runs cmd (a sender) on a helper thread and collects every datagram the
// socket receives until the sender has ended and the line is quiet. Bounded:
// gives up after 60 s whatever happens.
inline std::vector<Bytes> ReceiveWhile(NET_SOCKET* sock, const std::string& cmd, int* exitCode)
{
    std::atomic<bool> done{false};
    std::thread sender([&] {
        *exitCode = std::system((cmd + " >/dev/null 2>&1").c_str());
        done = true;
    });
    std::vector<Bytes> packets;
    std::vector<uint8_t> buf(kNetRecvMax);
    const uint32_t start = PLAT_TickMs();
    int quiet = 0;
    while (PLAT_TickMs() - start < 60000) {
        uint32_t len = 0;
        if (NET_UdpRecvMsg(sock, buf.data(), &len) != KORVALEN_OK) {
            break;
        }
        // Another test's sender may aim its RTCP (types 200-204) at this port.
        const bool rtcp = len >= 2 && buf[1] >= 200 && buf[1] <= 204;
        if (len && !rtcp) {
            packets.emplace_back(buf.begin(), buf.begin() + len);
            quiet = 0;
        } else if (done && ++quiet >= 2) {
            break;
        }
    }
    sender.join();
    return packets;
}

struct Frame {
    uint32_t timestamp;
    uint32_t frameType;
    uint32_t codecType;
    Bytes data;
};

struct Assembly {
    std::vector<Frame> frames;
    std::map<uint32_t, int> codes; // RTP_SpellFrame result -> count
};

inline Assembly Spell(const std::vector<Bytes>& packets, const RTP_PAYLOAD_TABLE* custom = nullptr,
                      const RTP_AAC_CONFIG* aac = nullptr)
{
    Assembly out;
    Bytes videoBuf(kRtpVideoFrameMax), audioBuf(kRtpAudioFrameMax);
    RTP_STREAM_INFO video, audio;
    RTP_InitStream(&video, videoBuf.data(), kRtpVideoFrameMax);
    RTP_InitStream(&audio, audioBuf.data(), kRtpAudioFrameMax);
    for (const Bytes& p : packets) {
        RTP_STREAM_INFO* done = nullptr;
        uint32_t r = RTP_SpellFrame(p.data(), static_cast<uint32_t>(p.size()), custom, aac, &video, &audio, &done);
        ++out.codes[r];
        if (r == KORVALEN_OK && done) {
            out.frames.push_back(
                {done->timestamp, done->frameType, done->codecType, Bytes(done->frame, done->frame + done->frameLen)});
        }
    }
    return out;
}

inline std::string WriteFrames(const std::string& name, const std::vector<Frame>& frames)
{
    const std::string path = TestHome() + "/" + name;
    std::ofstream f(path, std::ios::binary);
    for (const Frame& fr : frames) {
        f.write(reinterpret_cast<const char*>(fr.data.data()), static_cast<std::streamsize>(fr.data.size()));
    }
    return path;
}

// Per-frame hashes of the decoded pictures, in output order.
inline std::vector<std::string> FrameHashes(const std::string& path, const std::string& format)
{
    return FfmpegFrameMd5(path, "-f " + format);
}

// A UDP relay between a sender and the receiver that drops, duplicates and
// swaps packets at seeded random. It keeps every packet it was given, in
// order, and which of them it disturbed.
class LossyRelay {
public:
    LossyRelay(uint16_t destPort, uint32_t seed, double drop, double dup, double swap)
        : rng_(seed), drop_(drop), dup_(dup), swap_(swap)
    {
        in_ = socket(AF_INET, SOCK_DGRAM, 0);
        out_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(in_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        dest_ = a;
        dest_.sin_port = htons(destPort);
        thread_ = std::thread([this] { Run(); });
    }
    ~LossyRelay()
    {
        Stop();
        close(in_);
        close(out_);
    }
    uint16_t Port() const { return BoundPort(in_); }
    void Stop()
    {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    // Valid after Stop().
    std::vector<Bytes> clean;
    std::set<size_t> touched; // indexes into clean
    size_t drops = 0;

private:
    void Send(const Bytes& b)
    {
        sendto(out_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&dest_), sizeof dest_);
    }
    void Run()
    {
        std::uniform_real_distribution<double> u(0.0, 1.0);
        std::vector<uint8_t> buf(65536);
        bool holding = false;
        size_t held = 0;
        while (!stop_) {
            pollfd p{in_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) {
                continue;
            }
            const ssize_t n = recv(in_, buf.data(), buf.size(), 0);
            if (n <= 0) {
                continue;
            }
            const size_t i = clean.size();
            clean.emplace_back(buf.begin(), buf.begin() + n);
            if (holding) { // the held packet goes after this one
                Send(clean[i]);
                Send(clean[held]);
                holding = false;
                continue;
            }
            const double r = u(rng_);
            if (r < drop_) {
                touched.insert(i);
                ++drops;
            } else if (r < drop_ + dup_) {
                touched.insert(i);
                Send(clean[i]);
                Send(clean[i]);
            } else if (r < drop_ + dup_ + swap_) {
                touched.insert(i);
                holding = true;
                held = i;
            } else {
                Send(clean[i]);
            }
        }
        if (holding) {
            Send(clean[held]);
        }
    }

    std::mt19937 rng_;
    double drop_, dup_, swap_;
    int in_ = -1, out_ = -1;
    sockaddr_in dest_{};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace rtp_peer
