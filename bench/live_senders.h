// Live streams for the benchmarks: one korvalen-send per UDP port sending
// the 720p 25 fps 2 Mbit/s H.264 fixture as RTP on loopback, and the SDP
// that lets ffmpeg receive one of them.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "child_process.h"

namespace bench {

// Starts a program found on PATH (or by its path); quiet: its output goes
// to /dev/null. The child's id, or -1.
inline pid_t Spawn(const std::vector<std::string>& args, bool quiet = true)
{
    return SpawnProcess(args, quiet ? "/dev/null" : nullptr);
}

struct LiveSetup {
    std::string sample, sender;
    double seconds = 10;
};

// Finds the fixture and the sender; false, said on stdout, when one is missing.
inline bool FindLiveSetup(const char* name, const std::string& fixtures, const std::string& tools, LiveSetup* s)
{
    s->sample = fixtures + "/live_720p_2m.mkv";
    s->sender = tools + "/korvalen-send";
    if (access(s->sample.c_str(), R_OK) != 0 || access(s->sender.c_str(), X_OK) != 0) {
        std::printf("%s: needs %s (scripts/make_fixtures.sh) and %s\n", name, s->sample.c_str(), s->sender.c_str());
        return false;
    }
    return true;
}

inline std::vector<pid_t> StartSenders(const LiveSetup& s, const std::vector<uint16_t>& ports)
{
    std::vector<pid_t> pids;
    for (uint16_t p : ports) {
        pids.push_back(Spawn({s.sender, s.sample, "udp://127.0.0.1:" + std::to_string(p), "--loop", "--duration",
                              std::to_string(s.seconds)}));
    }
    return pids;
}

inline void WaitAll(const std::vector<pid_t>& pids)
{
    for (pid_t p : pids) {
        WaitChildCpu(p);
    }
}

// The session ffmpeg needs to receive one sender's stream on a local port.
inline void WriteH264Sdp(const std::string& path, uint16_t port)
{
    std::ofstream(path) << "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=bench\nc=IN IP4 127.0.0.1\nt=0 0\nm=video " << port
                        << " RTP/AVP 96\na=rtpmap:96 H264/90000\n";
}

} // namespace bench
