// A live stream from a real RTSP server (GStreamer's) over TCP: a relay
// does the RTSP handshake with interleaved transport and forwards every byte
// after PLAY verbatim ("$" frames, RTCP channels 1 and 3 included) to the
// port's own TCP connection, as a device gateway does.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <netinet/in.h>
#include <regex>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "decoded_pictures.h"
#include "korvalen.h"
#include "port_fixture.h"

#ifdef KORVALEN_RTSP_SERVER

namespace {

constexpr int kFrames = 50;

// The RTSP server in a child process; Port() is where it listens.
struct RtspServer {
    pid_t pid = -1;
    int port = 0;
    bool Start(const std::string& launch)
    {
        int out[2];
        if (pipe(out) != 0) {
            return false;
        }
        pid = fork();
        if (pid == 0) {
            dup2(out[1], 1);
            close(out[0]);
            execl(KORVALEN_RTSP_SERVER, "korvalen-test-rtsp-server", launch.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        FILE* f = fdopen(out[0], "r");
        bool ok = f && std::fscanf(f, "%d", &port) == 1;
        if (f) {
            std::fclose(f);
        }
        return ok && port > 0;
    }
    ~RtspServer()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

// Reads one RTSP response (header and body) from fd; what came after it
// (interleaved data sent at once) is left in *rest.
std::string Response(int fd, std::string* rest)
{
    std::string got;
    char buf[4096];
    for (;;) {
        const size_t end = got.find("\r\n\r\n");
        if (end != std::string::npos) {
            const size_t cl = got.find("Content-Length:");
            const size_t total = end + 4 + (cl < end ? std::stoul(got.substr(cl + 15)) : 0);
            if (got.size() >= total) {
                *rest = got.substr(total);
                return got.substr(0, total);
            }
        }
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            return "";
        }
        got.append(buf, static_cast<size_t>(n));
    }
}

// Handshake with the server, then forward to whoever connects to the
// listening socket. oneByte: the bytes go in writes of 1 to 13 bytes.
struct Relay {
    int listenFd = -1;
    int listenPort = 0;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<int> rtcpFrames{0};

    bool Listen()
    {
        listenFd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listenFd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(listenFd, 1);
        socklen_t len = sizeof a;
        getsockname(listenFd, reinterpret_cast<sockaddr*>(&a), &len);
        listenPort = ntohs(a.sin_port);
        return listenFd >= 0;
    }

    void Run(int serverPort, bool oneByte)
    {
        thread = std::thread([this, serverPort, oneByte] {
            int player = accept(listenFd, nullptr, nullptr);
            int fd = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(static_cast<uint16_t>(serverPort));
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            timeval tv{10, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
            const std::string url = "rtsp://127.0.0.1:" + std::to_string(serverPort) + "/stream";
            std::string rest, session;
            int cseq = 1;
            auto ask = [&](const std::string& method, const std::string& target, const std::string& headers) {
                const std::string req = method + " " + target + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq++) +
                                        "\r\n" + (session.empty() ? "" : "Session: " + session + "\r\n") + headers +
                                        "\r\n";
                send(fd, req.data(), req.size(), MSG_NOSIGNAL);
                std::string r = Response(fd, &rest);
                std::smatch m;
                if (std::regex_search(r, m, std::regex("Session: *([^;\r]+)"))) {
                    session = m[1];
                }
                return r.find("200 OK") != std::string::npos;
            };
            ASSERT_TRUE(ask("OPTIONS", url, ""));
            ASSERT_TRUE(ask("DESCRIBE", url, "Accept: application/sdp\r\n"));
            for (int track = 0; track < 2; ++track) {
                ASSERT_TRUE(ask("SETUP", url + "/stream=" + std::to_string(track),
                                "Transport: RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * track) + "-" +
                                    std::to_string(2 * track + 1) + "\r\n"));
            }
            ASSERT_TRUE(ask("PLAY", url, "Range: npt=0.000-\r\n"));
            // The server's bytes are taken as fast as they come, into a
            // queue of our own: a server whose TCP reader falls behind drops
            // packets, and the tiny writes below are slow on a busy machine.
            std::mutex lock;
            std::condition_variable came;
            std::string pending = rest;
            bool ended = false;
            std::thread reader([&] {
                std::vector<char> more(65536);
                while (!stop) {
                    const ssize_t n = recv(fd, more.data(), more.size(), 0);
                    std::lock_guard<std::mutex> g(lock);
                    if (n <= 0) {
                        ended = true;
                        came.notify_one();
                        return;
                    }
                    pending.append(more.data(), static_cast<size_t>(n));
                    came.notify_one();
                }
            });
            // Awkward splits: runs of 1 to 13 bytes, cut through "$" headers
            // and RTP headers alike.
            static const size_t kCuts[] = {1, 1, 2, 3, 1, 5, 7, 1, 11, 13};
            size_t cut = 0;
            std::string buf;
            while (!stop) {
                {
                    std::unique_lock<std::mutex> g(lock);
                    came.wait_for(g, std::chrono::milliseconds(100), [&] { return !pending.empty() || ended; });
                    if (pending.empty() && ended) {
                        break;
                    }
                    buf.swap(pending);
                    pending.clear();
                }
                for (size_t i = 0; i < buf.size();) {
                    size_t n = oneByte ? std::min(kCuts[cut++ % 10], buf.size() - i) : buf.size() - i;
                    ssize_t w = send(player, buf.data() + i, n, MSG_NOSIGNAL);
                    if (w <= 0) {
                        stop = true;
                        break;
                    }
                    i += static_cast<size_t>(w);
                }
                for (size_t i = 0; i + 1 < buf.size(); ++i) {
                    rtcpFrames += buf[i] == '$' && (buf[i + 1] == 1 || buf[i + 1] == 3);
                }
            }
            shutdown(fd, SHUT_RDWR); // ends the reader's recv
            reader.join();
            close(fd);
            close(player);
        });
    }
    ~Relay()
    {
        stop = true;
        if (listenFd >= 0) {
            shutdown(listenFd, SHUT_RDWR);
        }
        if (thread.joinable()) {
            thread.join();
        }
        if (listenFd >= 0) {
            close(listenFd);
        }
    }
};

struct AudioSeen {
    std::atomic<uint32_t> codec{99};
    std::atomic<uint64_t> pcm{0};
};

struct RtspCase {
    const char* name;
    const char* launch;
    uint32_t audioCodec;
    bool oneByte;
};

struct RtspRelay : PortFixture, ::testing::WithParamInterface<RtspCase> {};

} // namespace

TEST_P(RtspRelay, EveryFrameOfTheServersStreamDecodes)
{
    const RtspCase& c = GetParam();
    RtspServer server;
    ASSERT_TRUE(server.Start(c.launch));
    Relay relay;
    ASSERT_TRUE(relay.Listen());
    relay.Run(server.port, c.oneByte);

    if (c.audioCodec == KORVALEN_CODEC_AAC) {
        // RTP carries no AAC configuration: the caller gives it (AAC-LC,
        // 16 kHz, mono).
        KORVALEN_AUDIO_INFO info{};
        info.config[0] = 1;
        info.config[1] = 8;
        info.config[2] = 1;
        ASSERT_EQ(Korvalen_SetAudioInfo(port, &info), 1);
    }
    DecodedPictures got;
    AudioSeen audio;
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
    ASSERT_EQ(Korvalen_SetParseAudioDataCB(
                  port,
                  [](uint32_t, const KORVALEN_PARSED_FRAME* f, void* user, uint32_t) {
                      static_cast<AudioSeen*>(user)->codec = f->codec_type;
                  },
                  1, &audio),
              1);
    ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(
                  port,
                  [](uint32_t, const KORVALEN_DECODED_AUDIO* a, void* user, uint32_t) {
                      static_cast<AudioSeen*>(user)->pcm += a->length;
                  },
                  1, &audio),
              1);
    ASSERT_EQ(Korvalen_OpenNetStream(port, nullptr, 0, "127.0.0.1", static_cast<uint16_t>(relay.listenPort), 1), 1);
    // Generous: the server encodes in real time and a loaded machine slows
    // the small writes.
    for (int i = 0; i < 4 && got.Wait(kFrames) < static_cast<size_t>(kFrames); ++i) {
    }
    EXPECT_EQ(got.Wait(kFrames), static_cast<size_t>(kFrames));
    {
        std::lock_guard<std::mutex> lock(got.lock);
        EXPECT_EQ(got.width, 320u);
        EXPECT_EQ(got.height, 240u);
    }
    uint32_t lost = 99, total = 0;
    ASSERT_EQ(Korvalen_GetLostPacketRate(port, &lost, &total), 1);
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(audio.codec.load(), c.audioCodec);
    EXPECT_GT(audio.pcm.load(), 0u);
    EXPECT_GT(relay.rtcpFrames.load(), 0) << "the server's RTCP went through the port's connection too";
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, RtspRelay,
    ::testing::Values(
        RtspCase{"H264G711",
                 "( videotestsrc num-buffers=50 ! video/x-raw,width=320,height=240,framerate=25/1 ! "
                 "x264enc tune=zerolatency key-int-max=10 ! rtph264pay name=pay0 pt=96 config-interval=-1 "
                 "audiotestsrc num-buffers=50 ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! "
                 "rtppcmupay name=pay1 pt=0 )",
                 KORVALEN_CODEC_G711U, false},
        RtspCase{"H265AacTinyWrites",
                 "( videotestsrc num-buffers=50 ! video/x-raw,width=320,height=240,framerate=25/1 ! "
                 "x265enc tune=zerolatency key-int-max=10 ! rtph265pay name=pay0 pt=108 config-interval=-1 "
                 "audiotestsrc num-buffers=50 ! audio/x-raw,rate=16000,channels=1 ! avenc_aac ! "
                 "rtpmp4gpay name=pay1 pt=104 )",
                 KORVALEN_CODEC_AAC, true}),
    [](const auto& info) { return std::string(info.param.name); });

#endif
