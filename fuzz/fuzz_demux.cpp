// libFuzzer target: arbitrary bytes as a media file (seeds are small MP4 and
// MPEG-TS files) through the container table: detection, each reader's
// properties, frame reads in every mode and seeks; and the same bytes as a
// streaming segment. Everything a file holds is released with it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "demux/demux.h"
#include "demux/demux_segment.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool heap = QMX_HeapCreate(1) == 0;
    (void)heap;
    int fd = memfd_create("fuzz_file", 0);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    FileParserInfo info{};
    if (File_CreateFileParser(path.c_str(), &info) == KORVALEN_OK) {
        for (uint32_t mode : {1u, 2u, 4u, 5u}) {
            for (int i = 0; i < 100000; ++i) {
                FileFrameInfo f{};
                uint32_t err = File_ReadOneFrame(&info, &f, mode);
                if (err == KORVALEN_ERR_FILE_END) {
                    break;
                }
                if (err == KORVALEN_OK && (f.length > kFileFrameBufferSize || (f.length && !f.data))) {
                    __builtin_trap();
                }
            }
            File_SetPlayTime(&info, mode == 1 ? 0 : mode, 25);
        }
        uint32_t seconds = 0;
        File_GetPlayTime(&info, &seconds);
    }
    File_DestroyFileParser(&info);
    close(fd);
    if (QMX_HeapLiveBytes() != 0) {
        __builtin_trap();
    }
    size_t frames = 0;
    DEMUX_Segment(data, size, nullptr, [&](const FileFrameInfo& f) {
        if (f.length && !f.data) {
            __builtin_trap();
        }
        return ++frames < 10000;
    });
    return 0;
}
