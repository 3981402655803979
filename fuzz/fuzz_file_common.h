// Shared by the file-reader fuzz targets: the input becomes an in-memory
// file with a path, opened through the container dispatcher, and every frame
// is read in each read mode, with seeks between; frames that are chains of
// length-prefixed units get playback's start-code rewrite.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "demux/demux.h"
#include "korvalen_types.h"
#include "demux/mp4/mp4_reader.h"
#include "heap/qmx_heap.h"

inline void FuzzOneFile(const uint8_t* data, size_t size)
{
    static bool heap = QMX_HeapCreate(1) == 0;
    (void)heap;
    int fd = memfd_create("fuzz_file", 0);
    if (fd < 0) {
        return;
    }
    if (write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return;
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
                // Playback's rewrite of length-prefixed H.265 samples.
                if (err == KORVALEN_OK && f.data == info.frameBuffer && MP4_LengthPrefixed(f.data, f.length)) {
                    MP4_ToAnnexB(info.frameBuffer, f.length);
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
        __builtin_trap(); // everything a file holds is released with it
    }
}
