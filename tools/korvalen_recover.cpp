// korvalen-recover: turns record files left by a recorder that died (killed,
// or out of disk space before an MP4 index could be written) into playable
// files with the names their recorder would have given them.
//   korvalen-recover FILE.temp...   recover these files
//   korvalen-recover DIR...         recover every left-over file in DIR
// Files whose recorder still runs are left alone; --force takes them anyway.
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "record/record_journal.h"

int main(int argc, char** argv)
{
    bool force = false;
    int failures = 0;
    int done = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--force") == 0) {
            force = true;
            continue;
        }
        struct stat st;
        if (stat(argv[i], &st) == 0 && S_ISDIR(st.st_mode)) {
            const uint32_t n = REC_RecoverFolder(argv[i]);
            std::printf("%s: %u file(s) recovered\n", argv[i], n);
            done += static_cast<int>(n);
            continue;
        }
        char finalName[kRecordNameMax];
        const uint32_t err = REC_RecoverFile(argv[i], force, finalName);
        if (err == 0) {
            std::printf("%s -> %s\n", argv[i], finalName);
            ++done;
        } else {
            std::fprintf(stderr, "korvalen-recover: %s: error %u%s\n", argv[i], err,
                         err == 537 ? " (its recorder still runs; --force to take it)" : "");
            ++failures;
        }
    }
    if (argc < 2) {
        std::fprintf(stderr, "usage: korvalen-recover [--force] FILE.temp|DIR...\n");
        return 2;
    }
    return failures ? 1 : 0;
}
