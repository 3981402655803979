// Small helpers the benchmarks share: reading a file's packets, clocks,
// waiting for a child, and CPU time of this process or of one child.
#pragma once

#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

namespace bench {

// One "--name value" option and where its value goes.
struct Flag {
    const char* name;
    std::variant<std::string*, int*, double*, size_t*> to;
};

// Reads "--name value" pairs into the flags' variables; other words are left.
inline void ParseFlags(int argc, char** argv, std::initializer_list<Flag> flags)
{
    for (int i = 1; i + 1 < argc; ++i) {
        for (const Flag& f : flags) {
            if (std::strcmp(argv[i], f.name) != 0) {
                continue;
            }
            const char* v = argv[++i];
            std::visit(
                [v](auto* to) {
                    using T = std::remove_pointer_t<decltype(to)>;
                    if constexpr (std::is_same_v<T, std::string>) {
                        *to = v;
                    } else if constexpr (std::is_same_v<T, double>) {
                        *to = std::atof(v);
                    } else {
                        *to = static_cast<T>(std::strtoll(v, nullptr, 10));
                    }
                },
                f.to);
            break;
        }
    }
}

using Packets = std::vector<std::vector<uint8_t>>;

// The demuxed packets of a file (access units for raw H.264/H.265).
inline Packets ReadPackets(const std::string& path, size_t limit = SIZE_MAX)
{
    Packets out;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) {
        return out;
    }
    AVPacket* pkt = av_packet_alloc();
    while (out.size() < limit && av_read_frame(fmt, pkt) >= 0) {
        out.emplace_back(pkt->data, pkt->data + pkt->size);
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&fmt);
    return out;
}

inline double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline double Seconds(const rusage& ru)
{
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// who: RUSAGE_SELF or RUSAGE_CHILDREN (children already waited for).
inline double CpuSeconds(int who)
{
    rusage ru{};
    getrusage(who, &ru);
    return Seconds(ru);
}

// CPU seconds of the calling thread only.
inline double ThreadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Waits for one child and returns its own CPU seconds (-1 when it failed).
inline double WaitChildCpu(pid_t pid)
{
    int status = 0;
    rusage ru{};
    if (wait4(pid, &status, 0, &ru) != pid) {
        return -1;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? Seconds(ru) : -1;
}

inline double Percentile(std::vector<double> v, double p)
{
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5))];
}

} // namespace bench
