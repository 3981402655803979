// libFuzzer target: arbitrary bytes as an MPEG-TS file (seeds are small TS
// files): PCR properties, frames through the TS demultiplexer in every read
// mode, and PCR seeks.
#include "fuzz_file_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzOneFile(data, size);
    return 0;
}
