#include "log/log_file.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "log/log.h"
#include "platform/platform.h"

namespace {

constexpr size_t kPathMax = 256; // paths hold up to 255 characters
constexpr uint32_t kDefaultLevel = 2;
constexpr uint32_t kDefaultSizeKb = 1024;
constexpr uint32_t kMaxFileSize = 0x180000; // 1.5 MiB
constexpr uint32_t kRotateMargin = 1024;

const char* const kLevelNames[] = {"", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};

struct LogContext {
    uint32_t threshold;
    char curPath[kPathMax];
    char prevPath[kPathMax];
    FILE* file;
    uint32_t maxSize;
    uint32_t curSize;
};

// Guards opening and closing of the module.
std::mutex g_moduleMutex;
// Guards the context: rotation, writing and settings.
std::mutex g_ctxMutex;
LogContext* g_ctx = nullptr;
int g_initNum = 0;
// Lock-free copy of the threshold for the early drop in the log call.
std::atomic<uint32_t> g_threshold{0};

uint32_t FileSizeOf(const char* path)
{
    struct stat st {};
    return stat(path, &st) == 0 ? static_cast<uint32_t>(st.st_size) : 0;
}

// Applies folder and size; the caller holds no lock. Returns 0 or a code.
uint32_t ApplySettings(uint32_t level, const char* folder, uint32_t sizeKb)
{
    if (sizeKb == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::string dir = (folder && *folder) ? std::string(folder) : LOGFILE_DefaultFolder();
    if (dir.back() != '/') {
        dir.push_back('/');
    }
    if (access(dir.c_str(), F_OK) != 0 && !PLAT_MakeDirs(dir)) {
        return 1;
    }
    std::string cur = dir + "Player_SDK00.log";
    std::string prev = dir + "Player_SDK01.log";
    if (cur.size() >= kPathMax || prev.size() >= kPathMax) {
        return KORVALEN_ERR_INVALID_PARAM;
    }

    std::lock_guard<std::mutex> lock(g_ctxMutex);
    if (!g_ctx) {
        return 1;
    }
    if (level == 0) {
        g_ctx->threshold = 0;
        g_threshold.store(0);
        return KORVALEN_ERR_LOG;
    }
    if (level <= 5) {
        g_ctx->threshold = level;
        g_threshold.store(level);
    }
    uint64_t maxSize = static_cast<uint64_t>(sizeKb) * 1024;
    g_ctx->maxSize = maxSize > kMaxFileSize ? kMaxFileSize : static_cast<uint32_t>(maxSize);
    if (std::strcmp(g_ctx->curPath, cur.c_str()) != 0) {
        if (g_ctx->file) {
            std::fclose(g_ctx->file);
            g_ctx->file = nullptr;
        }
        std::snprintf(g_ctx->curPath, kPathMax, "%s", cur.c_str());
        std::snprintf(g_ctx->prevPath, kPathMax, "%s", prev.c_str());
        // Continue counting from what an earlier run left in the file so the
        // size cap holds across restarts.
        g_ctx->curSize = FileSizeOf(g_ctx->curPath);
    }
    return 0;
}

const char* BaseName(const char* source)
{
    const char* base = source;
    for (const char* p = source; *p; ++p) {
        if (*p == '/' || *p == '\\') {
            base = p + 1;
        }
    }
    if (std::strstr(base, "vetr") && std::strlen(base) >= 4) {
        base += 4;
    }
    return base;
}

} // namespace

std::string LOGFILE_DefaultFolder()
{
    std::string docs = PLAT_DocumentsDir();
    size_t cut = docs.find_last_of('/');
    if (cut == std::string::npos) {
        return "/tmp/PlayerFile/";
    }
    return docs.substr(0, cut + 1) + "PlayerFile/";
}

uint32_t LOGFILE_Open()
{
    std::lock_guard<std::mutex> module(g_moduleMutex);
    if (++g_initNum != 1) {
        return 0;
    }
    auto* ctx = static_cast<LogContext*>(std::calloc(1, sizeof(LogContext)));
    if (!ctx) {
        --g_initNum;
        return KORVALEN_ERR_NO_MEMORY;
    }
    {
        std::lock_guard<std::mutex> lock(g_ctxMutex);
        g_ctx = ctx;
    }
    uint32_t err = ApplySettings(kDefaultLevel, nullptr, kDefaultSizeKb);
    if (err != 0) {
        std::lock_guard<std::mutex> lock(g_ctxMutex);
        g_ctx = nullptr;
        g_threshold.store(0);
        std::free(ctx);
        --g_initNum;
        return 1;
    }
    LOG_SetSinkIfNone(&LOGFILE_Sink);
    return 0;
}

void LOGFILE_Close()
{
    std::lock_guard<std::mutex> module(g_moduleMutex);
    if (g_initNum == 0 || --g_initNum != 0) {
        return;
    }
    // Stop routing lines here before the context goes away.
    KORVALEN_LOG_CB expected = &LOGFILE_Sink;
    if (LOG_GetSink() == expected) {
        LOG_SetSink(nullptr);
    }
    std::lock_guard<std::mutex> lock(g_ctxMutex);
    if (g_ctx) {
        if (g_ctx->file) {
            std::fclose(g_ctx->file);
        }
        std::free(g_ctx);
        g_ctx = nullptr;
    }
    g_threshold.store(0);
}

bool LOGFILE_IsOpen()
{
    std::lock_guard<std::mutex> module(g_moduleMutex);
    return g_initNum > 0;
}

uint32_t LOGFILE_SetLog(uint32_t level, const char* folder, uint32_t sizeKb)
{
    {
        std::lock_guard<std::mutex> module(g_moduleMutex);
        if (g_initNum <= 0) {
            std::fprintf(stderr, "[PlayerLog-%d]SetLog failed, set before init is invalid. InitNum = %d.\n", __LINE__,
                         g_initNum);
            return 1;
        }
    }
    return ApplySettings(level, folder, sizeKb);
}

bool LOGFILE_WouldWrite(uint32_t level)
{
    uint32_t t = g_threshold.load(std::memory_order_relaxed);
    return t != 0 && level != 0 && level <= 5 && level >= t;
}

void LOGFILE_Sink(uint32_t level, uint32_t /*module*/, uint32_t /*reserved*/, const char* source, uint32_t line,
                  const char* text)
{
    if (!source || !*source || !text || !*text || level == 0 || level > 5) {
        return;
    }
    std::lock_guard<std::mutex> lock(g_ctxMutex);
    LogContext* ctx = g_ctx;
    if (!ctx || ctx->threshold == 0 || level < ctx->threshold) {
        return;
    }
    if (static_cast<uint64_t>(ctx->curSize) + kRotateMargin > ctx->maxSize) {
        if (ctx->file) {
            std::fclose(ctx->file);
            ctx->file = nullptr;
        }
        std::remove(ctx->prevPath);
        if (std::rename(ctx->curPath, ctx->prevPath) != 0 && errno != ENOENT) {
            std::fprintf(stderr, "[_sdk_func-%d]Rename file %s to %s failed:%s\n", __LINE__, ctx->curPath,
                         ctx->prevPath, std::strerror(errno));
            ctx->curSize = FileSizeOf(ctx->curPath);
            return;
        }
        ctx->curSize = 0;
    }
    if (!ctx->file) {
        ctx->file = std::fopen(ctx->curPath, "a+");
        if (!ctx->file) {
            std::fprintf(stderr, "[_sdk_func-%d]Open file %s failed:%s\n", __LINE__, ctx->curPath,
                         std::strerror(errno));
            return;
        }
    }
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tmv {};
    localtime_r(&ts.tv_sec, &tmv);
    int n = std::fprintf(ctx->file, "%04d-%02d-%02d %02d:%02d:%02d.%03d[%s][%s-%lu]%s\r\n", tmv.tm_year + 1900,
                         tmv.tm_mon + 1, tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
                         static_cast<int>(ts.tv_nsec / 1000000), kLevelNames[level], BaseName(source),
                         static_cast<unsigned long>(line), text);
    std::fflush(ctx->file);
    if (n > 0) {
        ctx->curSize += static_cast<uint32_t>(n);
    }
}

bool LOGFILE_GetSettings(LogFileSettings* out)
{
    std::lock_guard<std::mutex> lock(g_ctxMutex);
    if (!g_ctx || !out) {
        return false;
    }
    out->threshold = g_ctx->threshold;
    out->maxSize = g_ctx->maxSize;
    out->curSize = g_ctx->curSize;
    out->curPath = g_ctx->curPath;
    out->prevPath = g_ctx->prevPath;
    return true;
}
