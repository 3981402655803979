// korvalen-send: streams a media file as RTP so a player can be tried with
// nothing else installed. Video and audio go as a camera sends them: over
// UDP to one address, or "$"-framed on a TCP connection the player opens
// (channel 0 video, 2 audio, RTCP on 1 and 3). Optional seeded loss,
// reordering and duplication show how the player copes with a bad network.
//   korvalen-send FILE udp://host:port [options]
//   korvalen-send FILE tcp://[listen-ip]:port [options]
// Options: --loop, --duration SECONDS, --fast (no real-time pacing),
//          --loss PCT, --reorder PCT, --dup PCT, --seed N, --wait SECONDS
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

namespace {

volatile std::sig_atomic_t g_stop = 0;

struct Options {
    std::string file, url;
    bool loop = false, fast = false;
    double duration = 0, loss = 0, reorder = 0, dup = 0, wait = 30;
    unsigned seed = 1;
};

struct Counters {
    uint64_t packets = 0, bytes = 0, dropped = 0, reordered = 0, duplicated = 0, rtcp = 0;
};

// Where packets go: a UDP destination, or one accepted TCP connection.
struct Link {
    int fd = -1;
    bool tcp = false;
    sockaddr_storage dest{};
    socklen_t destLen = 0;
    sockaddr_storage rtcpDest{};
};

// One RTP muxer per elementary stream; its output arrives one packet per
// flush, which is where the network faults are applied.
struct Sender;
struct Track {
    Sender* owner = nullptr;
    AVFormatContext* mux = nullptr;
    AVBSFContext* bsf = nullptr; // length-prefixed H.264/H.265 to start codes
    int input = -1;
    uint8_t channel = 0; // TCP interleave channel of the RTP packets
    int64_t frames = 0;  // for inputs without time stamps
    bool headerWritten = false;
};

struct Sender {
    Options opt;
    Link link;
    Counters count;
    std::mt19937 rng;
    std::vector<uint8_t> held; // a packet kept back to be sent after the next
    uint8_t heldChannel = 0;
    bool failed = false;
};

bool SendRaw(Sender* s, const uint8_t* data, size_t len, uint8_t channel, bool rtcp)
{
    if (s->link.tcp) {
        uint8_t head[4] = {'$', channel, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
        std::vector<uint8_t> frame(head, head + 4);
        frame.insert(frame.end(), data, data + len);
        size_t off = 0;
        while (off < frame.size()) {
            ssize_t n = send(s->link.fd, frame.data() + off, frame.size() - off, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            off += static_cast<size_t>(n);
        }
        return true;
    }
    const sockaddr_storage& to = rtcp ? s->link.rtcpDest : s->link.dest;
    // A refused datagram (no receiver yet) is not the sender's failure.
    sendto(s->link.fd, data, len, 0, reinterpret_cast<const sockaddr*>(&to), s->link.destLen);
    return true;
}

int OnPacket(void* opaque, uint8_t* buf, int size)
{
    auto* t = static_cast<Track*>(opaque);
    Sender* s = t->owner;
    bool rtcp = size >= 2 && buf[1] >= 200 && buf[1] <= 204;
    if (rtcp) {
        ++s->count.rtcp;
        if (!SendRaw(s, buf, static_cast<size_t>(size), static_cast<uint8_t>(t->channel + 1), true)) {
            s->failed = true;
        }
        return size;
    }
    std::uniform_real_distribution<double> pct(0.0, 100.0);
    if (s->opt.loss > 0 && pct(s->rng) < s->opt.loss) {
        ++s->count.dropped;
        return size;
    }
    bool ok = true;
    if (s->opt.reorder > 0 && s->held.empty() && pct(s->rng) < s->opt.reorder) {
        s->held.assign(buf, buf + size);
        s->heldChannel = t->channel;
        ++s->count.reordered;
        return size;
    }
    ok &= SendRaw(s, buf, static_cast<size_t>(size), t->channel, false);
    ++s->count.packets;
    s->count.bytes += static_cast<uint64_t>(size);
    if (s->opt.dup > 0 && pct(s->rng) < s->opt.dup) {
        ok &= SendRaw(s, buf, static_cast<size_t>(size), t->channel, false);
        ++s->count.duplicated;
    }
    if (!s->held.empty()) {
        ok &= SendRaw(s, s->held.data(), s->held.size(), s->heldChannel, false);
        ++s->count.packets;
        s->count.bytes += s->held.size();
        s->held.clear();
    }
    if (!ok) {
        s->failed = true;
    }
    return size;
}

// Payload types the player knows without being told.
int PayloadTypeOf(AVCodecID id)
{
    switch (id) {
    case AV_CODEC_ID_H264:
        return 96;
    case AV_CODEC_ID_HEVC:
        return 108;
    case AV_CODEC_ID_MJPEG:
        return 26;
    case AV_CODEC_ID_PCM_MULAW:
        return 0;
    case AV_CODEC_ID_PCM_ALAW:
        return 8;
    case AV_CODEC_ID_AAC:
        return 104;
    default:
        return -1;
    }
}

bool OpenTrack(Sender* s, AVStream* in, Track* t)
{
    int pt = PayloadTypeOf(in->codecpar->codec_id);
    if (pt < 0) {
        std::fprintf(stderr, "korvalen-send: stream %d (%s) is not sent\n", in->index,
                     avcodec_get_name(in->codecpar->codec_id));
        return false;
    }
    t->owner = s;
    t->input = in->index;
    t->channel = in->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? 0 : 2;
    const AVCodecParameters* par = in->codecpar;
    bool lengthPrefixed = (par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC) &&
                          par->extradata_size > 0 && par->extradata[0] == 1;
    if (lengthPrefixed) {
        // Cameras repeat their parameter sets in band; MP4 keeps them aside.
        const char* name = par->codec_id == AV_CODEC_ID_H264 ? "h264_mp4toannexb" : "hevc_mp4toannexb";
        if (av_bsf_alloc(av_bsf_get_by_name(name), &t->bsf) < 0 || avcodec_parameters_copy(t->bsf->par_in, par) < 0) {
            return false;
        }
        t->bsf->time_base_in = in->time_base;
        if (av_bsf_init(t->bsf) < 0) {
            return false;
        }
        par = t->bsf->par_out;
    }
    if (avformat_alloc_output_context2(&t->mux, nullptr, "rtp", nullptr) < 0) {
        return false;
    }
    AVStream* out = avformat_new_stream(t->mux, nullptr);
    avcodec_parameters_copy(out->codecpar, par);
    if (t->bsf) {
        // The bit stream now carries its own parameter sets.
        av_freep(&out->codecpar->extradata);
        out->codecpar->extradata_size = 0;
    }
    out->time_base = in->time_base;
    av_opt_set_int(t->mux->priv_data, "payload_type", pt, 0);
    av_opt_set_int(t->mux->priv_data, "ssrc", 0x4b560000 + in->index, 0);
    auto* buf = static_cast<uint8_t*>(av_malloc(4096));
    t->mux->pb = avio_alloc_context(buf, 4096, 1, t, nullptr, &OnPacket, nullptr);
    t->mux->pb->max_packet_size = 1400;
    t->headerWritten = avformat_write_header(t->mux, nullptr) >= 0;
    return t->headerWritten;
}

void CloseTrack(Track* t)
{
    if (t->mux) {
        if (t->headerWritten) {
            av_write_trailer(t->mux); // frees the muxer's packet buffer
        }
        if (t->mux->pb) {
            av_freep(&t->mux->pb->buffer);
            avio_context_free(&t->mux->pb);
        }
        avformat_free_context(t->mux);
    }
    av_bsf_free(&t->bsf);
}

bool Resolve(const std::string& host, uint16_t port, sockaddr_storage* out, socklen_t* len)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &res) != 0 || !res) {
        return false;
    }
    std::memcpy(out, res->ai_addr, res->ai_addrlen);
    *len = res->ai_addrlen;
    freeaddrinfo(res);
    return true;
}

bool SetPort(sockaddr_storage* a, uint16_t port)
{
    if (a->ss_family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(a)->sin_port = htons(port);
    } else {
        reinterpret_cast<sockaddr_in6*>(a)->sin6_port = htons(port);
    }
    return true;
}

bool OpenLink(const Options& opt, Link* link)
{
    bool tcp = opt.url.rfind("tcp://", 0) == 0;
    if (!tcp && opt.url.rfind("udp://", 0) != 0) {
        return false;
    }
    std::string rest = opt.url.substr(6);
    size_t colon = rest.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    std::string host = rest.substr(0, colon);
    if (host.size() > 1 && host.front() == '[') {
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty()) {
        host = tcp ? "0.0.0.0" : "127.0.0.1";
    }
    auto port = static_cast<uint16_t>(std::atoi(rest.c_str() + colon + 1));
    sockaddr_storage addr{};
    socklen_t len = 0;
    if (!Resolve(host, port, &addr, &len)) {
        return false;
    }
    link->tcp = tcp;
    if (!tcp) {
        link->fd = socket(addr.ss_family, SOCK_DGRAM, 0);
        link->dest = addr;
        link->rtcpDest = addr;
        SetPort(&link->rtcpDest, static_cast<uint16_t>(port + 1));
        link->destLen = len;
        return link->fd >= 0;
    }
    int lfd = socket(addr.ss_family, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (lfd < 0 || bind(lfd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(lfd, 1) != 0) {
        if (lfd >= 0) {
            close(lfd);
        }
        return false;
    }
    std::printf("waiting for the player on tcp://%s:%u\n", host.c_str(), port);
    std::fflush(stdout);
    pollfd p{lfd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(opt.wait * 1000)) != 1) {
        close(lfd);
        std::fprintf(stderr, "korvalen-send: no player connected\n");
        return false;
    }
    link->fd = accept(lfd, nullptr, nullptr);
    close(lfd);
    setsockopt(link->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return link->fd >= 0;
}

// Sends one demuxed packet through its track, after the length-prefix
// rewrite where there is one.
bool Mux(Track* t, AVPacket* pkt, AVStream* in)
{
    if (pkt->pts == AV_NOPTS_VALUE) {
        AVRational rate = in->avg_frame_rate.num ? in->avg_frame_rate : in->r_frame_rate;
        if (!rate.num) {
            rate = AVRational{25, 1};
        }
        pkt->pts = av_rescale_q(t->frames, av_inv_q(rate), in->time_base);
    }
    if (pkt->dts == AV_NOPTS_VALUE) {
        pkt->dts = pkt->pts;
    }
    ++t->frames;
    AVStream* out = t->mux->streams[0];
    auto write = [&](AVPacket* p) {
        av_packet_rescale_ts(p, in->time_base, out->time_base);
        p->stream_index = 0;
        return av_write_frame(t->mux, p) >= 0;
    };
    if (!t->bsf) {
        return write(pkt);
    }
    if (av_bsf_send_packet(t->bsf, pkt) < 0) {
        return false;
    }
    while (av_bsf_receive_packet(t->bsf, pkt) == 0) {
        if (!write(pkt)) {
            return false;
        }
        av_packet_unref(pkt);
    }
    return true;
}

int Run(const Options& opt)
{
    AVFormatContext* in = nullptr;
    if (avformat_open_input(&in, opt.file.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(in, nullptr) < 0) {
        std::fprintf(stderr, "korvalen-send: cannot read %s\n", opt.file.c_str());
        avformat_close_input(&in);
        return 1;
    }
    Sender s;
    s.opt = opt;
    s.rng.seed(opt.seed);
    if (!OpenLink(opt, &s.link)) {
        std::fprintf(stderr, "korvalen-send: cannot use %s\n", opt.url.c_str());
        avformat_close_input(&in);
        return 2;
    }
    std::vector<Track> tracks(in->nb_streams);
    std::vector<Track*> byInput(in->nb_streams, nullptr);
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        if (OpenTrack(&s, in->streams[i], &tracks[i])) {
            byInput[i] = &tracks[i];
        }
    }
    auto start = std::chrono::steady_clock::now();
    double loopOffset = 0, lastTime = 0;
    AVPacket* pkt = av_packet_alloc();
    int rc = 0;
    while (!g_stop && !s.failed) {
        int r = av_read_frame(in, pkt);
        if (r < 0) {
            if (!opt.loop) {
                break;
            }
            loopOffset = lastTime + 0.04;
            av_seek_frame(in, -1, 0, AVSEEK_FLAG_BACKWARD);
            continue;
        }
        Track* t = byInput[pkt->stream_index];
        if (!t) {
            av_packet_unref(pkt);
            continue;
        }
        AVStream* st = in->streams[pkt->stream_index];
        int64_t ts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;
        double at = loopOffset + (ts != AV_NOPTS_VALUE ? ts * av_q2d(st->time_base) : t->frames * 0.04);
        if (opt.loop && loopOffset > 0) {
            // Time stamps keep rising across loops, as a camera's do.
            int64_t shift = av_rescale_q(static_cast<int64_t>(loopOffset * 1000), AVRational{1, 1000}, st->time_base);
            if (pkt->pts != AV_NOPTS_VALUE) {
                pkt->pts += shift;
            }
            if (pkt->dts != AV_NOPTS_VALUE) {
                pkt->dts += shift;
            }
        }
        lastTime = std::max(lastTime, at);
        if (opt.duration > 0 && at >= opt.duration) {
            av_packet_unref(pkt);
            break;
        }
        if (!opt.fast) {
            std::this_thread::sleep_until(start + std::chrono::microseconds(static_cast<int64_t>(at * 1e6)));
        }
        if (!Mux(t, pkt, st)) {
            rc = 1;
        }
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    if (!s.held.empty()) {
        SendRaw(&s, s.held.data(), s.held.size(), s.heldChannel, false);
        ++s.count.packets;
    }
    for (Track& t : tracks) {
        CloseTrack(&t);
    }
    avformat_close_input(&in);
    if (s.link.tcp) {
        shutdown(s.link.fd, SHUT_WR);
    }
    close(s.link.fd);
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("sent %llu packets (%llu bytes) in %.2f s, dropped %llu, reordered %llu, duplicated %llu, rtcp %llu\n",
                static_cast<unsigned long long>(s.count.packets), static_cast<unsigned long long>(s.count.bytes), took,
                static_cast<unsigned long long>(s.count.dropped), static_cast<unsigned long long>(s.count.reordered),
                static_cast<unsigned long long>(s.count.duplicated), static_cast<unsigned long long>(s.count.rtcp));
    if (s.failed) {
        std::fprintf(stderr, "korvalen-send: the connection closed\n");
        return 3;
    }
    return rc;
}

void Usage()
{
    std::printf("usage: korvalen-send FILE udp://host:port | tcp://[listen-ip]:port\n"
                "       [--loop] [--duration S] [--fast] [--loss PCT] [--reorder PCT] [--dup PCT]\n"
                "       [--seed N] [--wait S]\n");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        Usage();
        return 2;
    }
    Options opt;
    opt.file = argv[1];
    opt.url = argv[2];
    for (int i = 3; i < argc; ++i) {
        std::string a = argv[i];
        bool hasValue = i + 1 < argc;
        if (a == "--loop") {
            opt.loop = true;
        } else if (a == "--fast") {
            opt.fast = true;
        } else if (a == "--duration" && hasValue) {
            opt.duration = std::atof(argv[++i]);
        } else if (a == "--loss" && hasValue) {
            opt.loss = std::atof(argv[++i]);
        } else if (a == "--reorder" && hasValue) {
            opt.reorder = std::atof(argv[++i]);
        } else if (a == "--dup" && hasValue) {
            opt.dup = std::atof(argv[++i]);
        } else if (a == "--seed" && hasValue) {
            opt.seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        } else if (a == "--wait" && hasValue) {
            opt.wait = std::atof(argv[++i]);
        } else {
            Usage();
            return 2;
        }
    }
    std::signal(SIGINT, [](int) { g_stop = 1; });
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    av_log_set_level(AV_LOG_ERROR);
    return Run(opt);
}
