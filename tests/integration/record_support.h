// Helpers for the recording tests: run messages, waiting for the recorder,
// what ffprobe says about a file, and forked recorder processes.
#pragma once

#include <arpa/inet.h>
#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "../unit/codec_media.h"
#include "korvalen.h"

namespace record_support {

constexpr uint32_t kRecordFileReport = 270;

// Run messages as the report thread delivers them.
struct RunMessages {
    std::mutex lock;
    std::vector<KORVALEN_RUN_MSG> msgs;
    static RunMessages& Get()
    {
        static RunMessages m;
        return m;
    }
    static void On(const KORVALEN_RUN_MSG* m)
    {
        std::lock_guard<std::mutex> l(Get().lock);
        Get().msgs.push_back(*m);
    }
    void Clear()
    {
        std::lock_guard<std::mutex> l(lock);
        msgs.clear();
    }
    // Waits (bounded) for a message with this code and text.
    bool Has(uint32_t code, const std::string& text)
    {
        for (int i = 0; i < 100; ++i) {
            {
                std::lock_guard<std::mutex> l(lock);
                for (const auto& m : msgs) {
                    if (m.code == code && text == m.data) {
                        return true;
                    }
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
};

inline uint16_t FreeUdpPort()
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    sockaddr_in b{};
    socklen_t len = sizeof b;
    getsockname(fd, reinterpret_cast<sockaddr*>(&b), &len);
    close(fd);
    return ntohs(b.sin_port);
}

// Waits until the current record file stops growing (bounded: 10 s).
inline void WaitSizeSettles(uint32_t port)
{
    uint64_t last = 0;
    int still = 0;
    for (int i = 0; i < 200 && still < 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        uint64_t size = 0;
        Korvalen_GetRecordFileSize(port, &size);
        still = size == last && size > 0 ? still + 1 : 0;
        last = size;
    }
}

inline std::string Probe(const std::string& path, const std::string& entry)
{
    Bytes out = RunCommand("ffprobe -v error -show_entries stream=" + entry + " -of csv=p=0 '" + path + "'");
    std::string s(out.begin(), out.end());
    // MPEG-TS lists its programme's streams first: the streams come after.
    const size_t programmes = s.rfind("\n\n");
    if (programmes != std::string::npos) {
        s = s.substr(programmes + 2);
    }
    for (auto& c : s) {
        if (c == '\n') {
            c = ',';
        }
    }
    if (!s.empty() && s.back() == ',') {
        s.pop_back();
    }
    return s;
}

inline std::string StreamTags(const std::string& path)
{
    return Probe(path, "codec_tag_string");
}

inline std::string StreamCodecs(const std::string& path)
{
    return Probe(path, "codec_name");
}

inline Bytes ReadFileBytes(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline std::vector<Bytes> Chunks(const Bytes& all, size_t size)
{
    std::vector<Bytes> out;
    for (size_t at = 0; at < all.size(); at += size) {
        out.emplace_back(all.begin() + static_cast<long>(at),
                         all.begin() + static_cast<long>(std::min(all.size(), at + size)));
    }
    return out;
}

} // namespace record_support
