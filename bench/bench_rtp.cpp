// Depacketizing a captured 1080p H.264 RTP session (FU-A, ~1400-byte
// packets) from memory: our RTP_SpellFrame against GStreamer's
// appsrc ! rtph264depay ! fakesink on the same packets, in the same run.
// The session is captured at start-up from ffmpeg's RTP sender on loopback.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net/net_socket.h"
#include "platform/platform.h"
#include "rtp/rtp.h"

namespace {

using Clock = std::chrono::steady_clock;
using Packets = std::vector<std::vector<uint8_t>>;

uint16_t BoundPort(int fd)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

Packets Capture(const std::string& file)
{
    NET_SOCKET sock;
    Packets packets;
    if (NET_CreateRecvSocket("127.0.0.1", 0, "127.0.0.1", 0, NET_PROTO_UDP, &sock) != KORVALEN_OK) {
        return packets;
    }
    // Five times real time: quick, and well within what loopback carries.
    const std::string cmd = "ffmpeg -hide_banner -loglevel error -readrate 5 -f h264 -i '" + file +
                            "' -c:v copy -f rtp -pkt_size 1412 rtp://127.0.0.1:" + std::to_string(BoundPort(sock.fd)) +
                            " >/dev/null 2>&1";
    std::atomic<bool> done{false};
    std::thread sender([&] {
        if (std::system(cmd.c_str()) != 0) {
            std::fprintf(stderr, "ffmpeg failed: %s\n", cmd.c_str());
        }
        done = true;
    });
    std::vector<uint8_t> buf(kNetRecvMax);
    int quiet = 0;
    const uint32_t start = PLAT_TickMs();
    while (PLAT_TickMs() - start < 120000) {
        uint32_t len = 0;
        if (NET_UdpRecvMsg(&sock, buf.data(), &len) != KORVALEN_OK) {
            break;
        }
        if (len) {
            packets.emplace_back(buf.begin(), buf.begin() + len);
            quiet = 0;
        } else if (done && ++quiet >= 2) {
            break;
        }
    }
    sender.join();
    NET_DestroySocket(&sock);
    return packets;
}

// One pass over the session; returns the frames assembled.
uint32_t SpellAll(const Packets& packets, std::vector<uint8_t>& frameBuf)
{
    RTP_STREAM_INFO video, audio;
    static std::vector<uint8_t> audioBuf(kRtpAudioFrameMax);
    RTP_InitStream(&video, frameBuf.data(), kRtpVideoFrameMax);
    RTP_InitStream(&audio, audioBuf.data(), kRtpAudioFrameMax);
    uint32_t frames = 0;
    for (const auto& p : packets) {
        if (RTP_SpellFrame(p.data(), static_cast<uint32_t>(p.size()), nullptr, nullptr, &video, &audio) ==
            KORVALEN_OK) {
            ++frames;
        }
    }
    return frames;
}

// One pass through GStreamer; seconds from the first push to end-of-stream,
// negative on failure. The buffers wrap the captured bytes without copying.
double GstPass(const Packets& packets, uint32_t* frames)
{
    GError* err = nullptr;
    GstElement* pipe =
        gst_parse_launch("appsrc name=src is-live=false format=time block=true max-bytes=0 "
                         "caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,"
                         "payload=96 ! rtph264depay ! fakesink name=sink sync=false signal-handoffs=true",
                         &err);
    if (!pipe) {
        std::fprintf(stderr, "gst: %s\n", err ? err->message : "?");
        return -1;
    }
    GstElement* src = gst_bin_get_by_name(GST_BIN(pipe), "src");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipe), "sink");
    static std::atomic<uint32_t> handoffs;
    handoffs = 0;
    g_signal_connect(sink, "handoff", G_CALLBACK(+[](GstElement*, GstBuffer*, GstPad*, gpointer) { ++handoffs; }),
                     nullptr);
    gst_element_set_state(pipe, GST_STATE_PLAYING);
    const auto t0 = Clock::now();
    for (const auto& p : packets) {
        GstBuffer* b = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, const_cast<uint8_t*>(p.data()), p.size(),
                                                   0, p.size(), nullptr, nullptr);
        gst_app_src_push_buffer(GST_APP_SRC(src), b);
    }
    gst_app_src_end_of_stream(GST_APP_SRC(src));
    GstBus* bus = gst_element_get_bus(pipe);
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    const bool ok = msg && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
    if (msg) {
        gst_message_unref(msg);
    }
    gst_object_unref(bus);
    gst_element_set_state(pipe, GST_STATE_NULL);
    gst_object_unref(src);
    gst_object_unref(sink);
    gst_object_unref(pipe);
    *frames = handoffs;
    return ok ? secs : -1;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = 5;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--rounds" && i + 1 < argc) {
            rounds = std::max(1, std::atoi(argv[++i]));
        }
    }
    gst_init(&argc, &argv);
    const std::string dir = KORVALEN_FIXTURES;
    const std::string file = dir + "/rtp_bench_1080p.h264";
    if (access(file.c_str(), R_OK) != 0 && std::system(("flock " + dir + ".lock " + KORVALEN_SOURCE_DIR +
                                                        "/scripts/make_fixtures.sh " + dir + " >/dev/null")
                                                           .c_str()) != 0) {
        std::fprintf(stderr, "cannot make %s\n", file.c_str());
        return 1;
    }
    const Packets packets = Capture(file);
    uint64_t bytes = 0;
    size_t biggest = 0;
    for (const auto& p : packets) {
        bytes += p.size();
        biggest = std::max(biggest, p.size());
    }
    if (packets.size() < 1000) {
        std::fprintf(stderr, "capture too short: %zu packets\n", packets.size());
        return 1;
    }
    std::printf("session: %zu packets, %.1f MB, largest %zu bytes\n", packets.size(), bytes / 1e6, biggest);

    std::vector<uint8_t> frameBuf(kRtpVideoFrameMax);
    double ours = 1e30, theirs = 1e30;
    uint32_t ourFrames = 0, gstFrames = 0;
    for (int r = 0; r < rounds; ++r) {
        const auto t0 = Clock::now();
        ourFrames = SpellAll(packets, frameBuf);
        ours = std::min(ours, std::chrono::duration<double>(Clock::now() - t0).count());
        const double g = GstPass(packets, &gstFrames);
        if (g < 0) {
            std::fprintf(stderr, "GStreamer pass failed\n");
            return 1;
        }
        theirs = std::min(theirs, g);
    }
    const auto report = [&](const char* who, double secs, uint32_t frames) {
        std::printf("%-24s %8.3f ms  %10.0f packets/s  %8.1f Mbit/s  %u frames\n", who, secs * 1e3,
                    packets.size() / secs, bytes * 8 / secs / 1e6, frames);
    };
    report("RTP_SpellFrame", ours, ourFrames);
    report("GStreamer rtph264depay", theirs, gstFrames);
    // GStreamer gets its own streaming thread behind appsrc; ours runs on the
    // calling thread alone.
    std::printf("ratio (packets/s, ours / GStreamer): %.1fx (best of %d rounds)\n", theirs / ours, rounds);
    return ourFrames > 0 ? 0 : 1;
}
