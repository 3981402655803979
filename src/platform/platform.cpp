#include "platform/platform.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

uint32_t PLAT_TickMs()
{
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void PLAT_SleepMs(uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void PLAT_SetThreadName(const char* name)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s", name);
    pthread_setname_np(pthread_self(), buf);
}

int32_t PLAT_ProcessId()
{
    return static_cast<int32_t>(getpid());
}

uint64_t PLAT_ThreadId()
{
    return static_cast<uint64_t>(syscall(SYS_gettid));
}

std::string PLAT_DocumentsDir()
{
    const char* xdg = std::getenv("XDG_DOCUMENTS_DIR");
    if (xdg && *xdg) {
        return xdg;
    }
    const char* home = std::getenv("HOME");
    if (home && *home) {
        return std::string(home) + "/Documents";
    }
    return {};
}

bool PLAT_MakeDirs(const std::string& path)
{
    if (path.empty()) {
        return false;
    }
    std::string cur;
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') {
            if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) {
                return false;
            }
        }
        if (i < path.size()) {
            cur.push_back(path[i]);
        }
    }
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

uint64_t PLAT_VirtualSizeBytes()
{
    // First field of statm: total program size in pages.
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) {
        return 0;
    }
    unsigned long long pages = 0;
    int n = std::fscanf(f, "%llu", &pages);
    std::fclose(f);
    if (n != 1) {
        return 0;
    }
    return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}
