// Private heap: every library buffer comes from here so that live bytes can be
// counted and allocation failures can be injected in tests.
#pragma once

#include <cstddef>
#include <cstdint>

// Creates the heap; size is only checked to be non-zero (the heap grows).
// Returns 0 or the creation failure code 1.
uint32_t QMX_HeapCreate(size_t size);
// Destroys the heap; returns 0, or 1 when it was not created.
uint32_t QMX_HeapDestroy();
bool QMX_HeapIsCreated();

// Allocates size bytes, zero-filled. Logs "malloc (size:%d) failed" and
// returns null on failure.
void* QMX_HeapMalloc(size_t size);
void QMX_HeapFree(void* block);

// Live-byte and live-block accounting.
uint64_t QMX_HeapLiveBytes();
uint64_t QMX_HeapLiveBlocks();

// Test hook: make the n-th allocation from now fail (1 = the next one);
// 0 disables. Returns how many allocations were made since the last call.
void QMX_HeapFailAt(uint64_t n);
uint64_t QMX_HeapAllocCount();

// Typed helpers for records with constructors.
template <class T, class... A> T* QMX_New(A&&... args)
{
    void* p = QMX_HeapMalloc(sizeof(T));
    return p ? new (p) T(static_cast<A&&>(args)...) : nullptr;
}

template <class T> void QMX_Delete(T* p)
{
    if (p) {
        p->~T();
        QMX_HeapFree(p);
    }
}
