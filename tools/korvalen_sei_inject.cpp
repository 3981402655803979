// korvalen-sei-inject: writes analysis rules and targets (and the other SEI
// contents the player reads) into an H.264 or H.265 Annex-B stream, before
// the first slice of each access unit, from a small text description.
//
//   korvalen-sei-inject --codec h264|h265 -i in.h264 -o out.h264 -d desc.txt
//
// See sei_writer.h for the description language. Example:
//   *    rule polygon label=4 color=6 points=1000,1000;9000,1000;9000,9000;1000,9000
//   0-99 target id=7 class=0 color=5 track=1 box=2000,2000,3000,3500 move=40,0
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "sei_writer.h"

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: korvalen-sei-inject --codec h264|h265 -i INPUT -o OUTPUT -d DESCRIPTION\n");
    return 2;
}

bool ReadAll(const char* path, std::string* out)
{
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        return false;
    }
    out->assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    const char* in = nullptr;
    const char* out = nullptr;
    const char* desc = nullptr;
    uint32_t codec = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (!std::strcmp(argv[i], "--codec")) {
            codec = !std::strcmp(argv[i + 1], "h264") ? SEIW_H264 : !std::strcmp(argv[i + 1], "h265") ? SEIW_H265 : 0;
        } else if (!std::strcmp(argv[i], "-i")) {
            in = argv[i + 1];
        } else if (!std::strcmp(argv[i], "-o")) {
            out = argv[i + 1];
        } else if (!std::strcmp(argv[i], "-d")) {
            desc = argv[i + 1];
        } else {
            return Usage();
        }
    }
    if (!in || !out || !desc || codec == 0) {
        return Usage();
    }
    std::string stream, text, error;
    for (auto [path, into] : {std::pair{in, &stream}, std::pair{desc, &text}}) {
        if (!ReadAll(path, into)) {
            std::fprintf(stderr, "korvalen-sei-inject: cannot read %s\n", path);
            return 1;
        }
    }
    std::vector<SEIW_STATEMENT> statements;
    if (!SeiWriter_ParseDescription(text, &statements, &error)) {
        std::fprintf(stderr, "korvalen-sei-inject: %s: %s\n", desc, error.c_str());
        return 1;
    }
    const SeiBytes result = SeiWriter_Inject(codec, SeiBytes(stream.begin(), stream.end()), statements);
    std::ofstream f(out, std::ios::binary);
    f.write(reinterpret_cast<const char*>(result.data()), static_cast<std::streamsize>(result.size()));
    if (!f) {
        std::fprintf(stderr, "korvalen-sei-inject: cannot write %s\n", out);
        return 1;
    }
    return 0;
}
