#include "source/hls/hls_cache.h"

#include <cstdio>
#include <dirent.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "korvalen_types.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {

constexpr uint64_t kDefaultLimitMb = 500;
constexpr const char* kSuffix = ".kseg";

struct Entry {
    uint64_t size = 0;
    uint64_t lastUse = 0; // use counter: larger is more recent
};

std::mutex g_lock;
std::string g_path;
uint64_t g_limit = kDefaultLimitMb << 20;
uint64_t g_bytes = 0;
uint64_t g_clock = 0;
std::map<std::string, Entry> g_entries; // by file name

// File name of a segment address: 64-bit FNV-1a in hex.
std::string FileName(const std::string& url)
{
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : url) {
        h = (h ^ c) * 1099511628211ull;
    }
    char name[32];
    std::snprintf(name, sizeof name, "%016llx%s", static_cast<unsigned long long>(h), kSuffix);
    return name;
}

void RemoveLocked(std::map<std::string, Entry>::iterator it)
{
    std::remove((g_path + "/" + it->first).c_str());
    g_bytes -= it->second.size;
    g_entries.erase(it);
}

void EvictLocked(uint64_t limit)
{
    while (g_bytes > limit && !g_entries.empty()) {
        auto oldest = g_entries.begin();
        for (auto it = g_entries.begin(); it != g_entries.end(); ++it) {
            if (it->second.lastUse < oldest->second.lastUse) {
                oldest = it;
            }
        }
        RemoveLocked(oldest);
    }
}

bool HasSuffix(const std::string& s)
{
    const size_t n = std::char_traits<char>::length(kSuffix);
    return s.size() > n && s.compare(s.size() - n, n, kSuffix) == 0;
}

} // namespace

void HLS_CacheStartup()
{
    std::lock_guard<std::mutex> lock(g_lock);
    g_limit = kDefaultLimitMb << 20;
    EvictLocked(g_limit);
}

uint32_t HLS_CacheSetPath(const std::string& path)
{
    if (path.empty()) {
        // No folder: nothing is cached and HLS playback is refused until one
        // is set again; the files stay where they are.
        std::lock_guard<std::mutex> lock(g_lock);
        g_path.clear();
        g_entries.clear();
        g_bytes = 0;
        return KORVALEN_OK;
    }
    if (!PLAT_MakeDirs(path)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "HLS_CacheSetPath fail, folder(%s) cannot be made", path.c_str());
        return KORVALEN_ERR_HLS_CACHE;
    }
    std::lock_guard<std::mutex> lock(g_lock);
    g_path = path;
    g_entries.clear();
    g_bytes = 0;
    // What an earlier run left counts, oldest first by modification time.
    std::multimap<int64_t, std::pair<std::string, uint64_t>> found;
    if (DIR* d = opendir(path.c_str())) {
        while (dirent* e = readdir(d)) {
            struct stat st;
            const std::string name = e->d_name;
            if (HasSuffix(name) && stat((path + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                found.emplace(st.st_mtime, std::make_pair(name, static_cast<uint64_t>(st.st_size)));
            }
        }
        closedir(d);
    }
    for (auto& f : found) {
        g_entries[f.second.first] = Entry{f.second.second, ++g_clock};
        g_bytes += f.second.second;
    }
    EvictLocked(g_limit);
    return KORVALEN_OK;
}

bool HLS_CacheHasPath()
{
    std::lock_guard<std::mutex> lock(g_lock);
    return !g_path.empty();
}

uint32_t HLS_CacheSetLimitMb(uint32_t mb)
{
    if (mb == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(g_lock);
    g_limit = static_cast<uint64_t>(mb) << 20;
    EvictLocked(g_limit);
    return KORVALEN_OK;
}

uint32_t HLS_CacheClean()
{
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_path.empty()) {
        return KORVALEN_ERR_HLS_NO_CACHE_PATH;
    }
    EvictLocked(0);
    return KORVALEN_OK;
}

bool HLS_CacheGet(const std::string& url, std::vector<uint8_t>* data)
{
    std::lock_guard<std::mutex> lock(g_lock);
    auto it = g_entries.find(FileName(url));
    if (it == g_entries.end()) {
        return false;
    }
    FILE* f = std::fopen((g_path + "/" + it->first).c_str(), "rb");
    if (!f) {
        g_bytes -= it->second.size; // removed behind our back
        g_entries.erase(it);
        return false;
    }
    data->resize(it->second.size);
    const size_t got = data->empty() ? 0 : std::fread(data->data(), 1, data->size(), f);
    std::fclose(f);
    if (got != it->second.size) {
        RemoveLocked(it);
        return false;
    }
    it->second.lastUse = ++g_clock;
    return true;
}

uint32_t HLS_CachePut(const std::string& url, const std::vector<uint8_t>& data)
{
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_path.empty()) {
        return KORVALEN_ERR_HLS_NO_CACHE_PATH;
    }
    if (data.size() > g_limit) {
        return KORVALEN_OK; // would push everything else out and still not fit
    }
    const std::string name = FileName(url);
    auto old = g_entries.find(name);
    if (old != g_entries.end()) {
        RemoveLocked(old);
    }
    EvictLocked(g_limit - data.size());
    const std::string file = g_path + "/" + name;
    const std::string tmp = file + ".part";
    FILE* f = std::fopen(tmp.c_str(), "wb");
    bool ok = f && std::fwrite(data.data(), 1, data.size(), f) == data.size();
    ok = f && std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), file.c_str()) != 0) {
        std::remove(tmp.c_str());
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "HLS_CachePut fail, file(%s) cannot be written", file.c_str());
        return KORVALEN_ERR_HLS_CACHE;
    }
    g_entries[name] = Entry{data.size(), ++g_clock};
    g_bytes += data.size();
    return KORVALEN_OK;
}

uint64_t HLS_CacheBytes()
{
    std::lock_guard<std::mutex> lock(g_lock);
    return g_bytes;
}
