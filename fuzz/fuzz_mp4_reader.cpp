// libFuzzer target: arbitrary bytes as an MP4 file (seeds are small MP4
// files), through detection, the box tree, the sample index, frame reads in
// every mode and seeks.
#include "fuzz_file_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzOneFile(data, size);
    return 0;
}
