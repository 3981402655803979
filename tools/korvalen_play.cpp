// korvalen-play: the demo player. For now it runs the self-check, which
// exercises the library frame through the public API and says what it did.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "korvalen.h"

namespace {

bool Expect(bool ok, const char* what)
{
    std::printf("  %-58s %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}

std::string LogFolder()
{
    const char* docs = std::getenv("XDG_DOCUMENTS_DIR");
    std::string d = docs && *docs ? docs : std::string(std::getenv("HOME") ? std::getenv("HOME") : "") + "/Documents";
    size_t cut = d.find_last_of('/');
    return cut == std::string::npos ? "/tmp/PlayerFile/" : d.substr(0, cut + 1) + "PlayerFile/";
}

int SelfCheck()
{
    bool ok = true;
    uint32_t v = Korvalen_GetVersion();
    std::printf("korvalen %u.%u.%04u self-check\n", v & 0xFF, (v >> 8) & 0xFF, v >> 16);
    ok &= Expect(Korvalen_Init() == 1, "Korvalen_Init");
    ok &= Expect(Korvalen_GetInitCount() == 1, "init count is 1");

    uint32_t ports[3] = {};
    for (uint32_t& p : ports) {
        ok &= Expect(Korvalen_AllocPort(&p) == 1, "Korvalen_AllocPort");
    }
    std::printf("  allocated ports %u, %u, %u\n", ports[0], ports[1], ports[2]);
    Korvalen_FreePort(ports[1]);
    uint32_t next = 0;
    ok &= Expect(Korvalen_AllocPort(&next) == 1 && next == ports[2] + 1, "round-robin: a freed number is reused last");
    std::printf("  after freeing %u the next port is %u\n", ports[1], next);

    ok &= Expect(Korvalen_SetPacketBuffer(ports[0], 2000, 200) == 1, "Korvalen_SetPacketBuffer(2000, 200)");
    ok &= Expect(Korvalen_SetBufferCtrl(ports[0], 2) == 0 && Korvalen_GetLastError() == KORVALEN_ERR_INVALID_PARAM,
                 "Korvalen_SetBufferCtrl(2) refused with 2");
    ok &= Expect(Korvalen_StartPlay(300, 0) == 0 && Korvalen_GetLastError() == KORVALEN_ERR_PORT,
                 "port 300 refused with 259");
    ok &= Expect(Korvalen_StartPlay(ports[0], 0) == 1 && Korvalen_StopPlay(ports[0], 0) == 1,
                 "headless rendering starts and stops");
    ok &= Expect(Korvalen_OpenMediaFile(ports[0], "sample.mp4") == 0 &&
                     Korvalen_GetLastError() == KORVALEN_ERR_NOT_SUPPORTED,
                 "file playback not built yet: 7");

    uint32_t vmMib = 0;
    ok &= Expect(Korvalen_GetTotalVirtualSize(&vmMib, nullptr) == 1, "Korvalen_GetTotalVirtualSize");
    std::printf("  process virtual size: %u MiB\n", vmMib);

    Korvalen_FreePort(ports[0]);
    Korvalen_FreePort(ports[2]);
    Korvalen_FreePort(next);
    Korvalen_Cleanup();
    ok &= Expect(Korvalen_GetInitCount() == 0, "Korvalen_Cleanup brings the count to 0");

    std::string log = LogFolder() + "Player_SDK00.log";
    std::printf("log file: %s\n", log.c_str());
    if (FILE* f = std::fopen(log.c_str(), "r")) {
        std::fseek(f, 0, SEEK_END);
        std::printf("  %ld bytes; last lines:\n", std::ftell(f));
        long back = std::ftell(f) > 600 ? 600 : std::ftell(f);
        std::fseek(f, -back, SEEK_END);
        char buf[700] = {};
        size_t n = std::fread(buf, 1, sizeof buf - 1, f);
        buf[n] = 0;
        const char* start = std::strchr(buf, '\n');
        std::printf("%s", start ? start + 1 : buf);
        std::fclose(f);
    } else {
        ok &= Expect(false, "log file written");
    }
    std::printf("self-check %s\n", ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}

void Usage()
{
    std::printf("usage: korvalen-play --self-check\n"
                "Playback of network streams and files is not built yet.\n");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--self-check") == 0) {
        return SelfCheck();
    }
    Usage();
    return 2;
}
