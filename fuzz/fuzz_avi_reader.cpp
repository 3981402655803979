// libFuzzer target: arbitrary bytes as an AVI file through the AVI reader
// (information, every read mode, seeking) and through the repair of a file
// cut short.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "demux/avi/avi.h"
#include "log/log.h"

namespace {

void Quiet(uint32_t, uint32_t, uint32_t, const char*, uint32_t, const char*)
{
}

std::string Scratch()
{
    return "/tmp/fuzz_avi_reader_" + std::to_string(getpid()) + ".avi";
}

bool WriteAll(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        return false;
    }
    const bool ok = std::fwrite(data, 1, size, f) == size;
    std::fclose(f);
    return ok;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::vector<uint8_t> buf(0x200000);
    LOG_SetSink(&Quiet);
    const std::string path = Scratch();
    if (!WriteAll(path, data, size)) {
        return 0;
    }
    if (AVI_HANDLE avi = AVI_CreateAviParser(path.c_str())) {
        AVI_INFO info{};
        AVI_GetAviInfo(avi, &info);
        const uint32_t mode = size ? data[size - 1] % 5 : 0;
        for (int i = 0; i < 64; ++i) {
            AVI_FRAME_INFO f{buf.data(), static_cast<uint32_t>(buf.size()), 0, 0, 0, 0, 0};
            if (AVI_GetOneFrameData(avi, (mode + static_cast<uint32_t>(i)) % 4, &f) != 0) {
                break;
            }
            if (f.length > buf.size()) {
                __builtin_trap();
            }
        }
        AVI_SetPlayTime(avi, size ? data[0] % 4 : 0, size > 1 ? data[1] : 25);
        uint32_t secs = 0;
        AVI_GetCurSampleIndex(avi, &secs);
        AVI_FileClose(nullptr, avi);
    }
    AVIF_Repair(path.c_str());
    unlink(path.c_str());
    return 0;
}
