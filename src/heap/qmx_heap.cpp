#include "heap/qmx_heap.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/log.h"

namespace {

// A small header in front of each block keeps its size for the accounting.
struct alignas(16) BlockHeader {
    uint64_t size;
    uint64_t magic;
};
constexpr uint64_t kMagic = 0x4B4F5256484541ULL; // "KORVHEA"

std::atomic<bool> g_created{false};
std::atomic<uint64_t> g_liveBytes{0};
std::atomic<uint64_t> g_liveBlocks{0};
std::atomic<uint64_t> g_allocCount{0};
std::atomic<uint64_t> g_failAt{0};

} // namespace

uint32_t QMX_HeapCreate(size_t size)
{
    if (size == 0) {
        return 1;
    }
    g_created.store(true);
    return 0;
}

uint32_t QMX_HeapDestroy()
{
    return g_created.exchange(false) ? 0 : 1;
}

bool QMX_HeapIsCreated()
{
    return g_created.load();
}

void* QMX_HeapMalloc(size_t size)
{
    uint64_t n = g_allocCount.fetch_add(1) + 1;
    uint64_t failAt = g_failAt.load(std::memory_order_relaxed);
    void* raw = nullptr;
    if (failAt == 0 || n != failAt) {
        raw = std::calloc(1, sizeof(BlockHeader) + size);
    }
    if (!raw) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "malloc (size:%d) failed", static_cast<int>(size));
        return nullptr;
    }
    auto* h = static_cast<BlockHeader*>(raw);
    h->size = size;
    h->magic = kMagic;
    g_liveBytes.fetch_add(size, std::memory_order_relaxed);
    g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
    return h + 1;
}

void QMX_HeapFree(void* block)
{
    if (!block) {
        return;
    }
    auto* h = static_cast<BlockHeader*>(block) - 1;
    g_liveBytes.fetch_sub(h->size, std::memory_order_relaxed);
    g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    h->magic = 0;
    std::free(h);
}

uint64_t QMX_HeapLiveBytes()
{
    return g_liveBytes.load();
}

uint64_t QMX_HeapLiveBlocks()
{
    return g_liveBlocks.load();
}

void QMX_HeapFailAt(uint64_t n)
{
    g_allocCount.store(0);
    g_failAt.store(n);
}

uint64_t QMX_HeapAllocCount()
{
    return g_allocCount.load();
}
