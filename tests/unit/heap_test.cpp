#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "log_capture.h"

TEST(Heap, CountsLiveBytesAndFailsTheRequestedAllocation)
{
    uint64_t base = QMX_HeapLiveBytes();
    void* a = QMX_HeapMalloc(100);
    void* b = QMX_HeapMalloc(28);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(QMX_HeapLiveBytes(), base + 128);
    EXPECT_EQ(static_cast<unsigned char*>(a)[99], 0) << "blocks come zero-filled";
    QMX_HeapFree(a);
    EXPECT_EQ(QMX_HeapLiveBytes(), base + 28);

    LogCapture log;
    QMX_HeapFailAt(2);
    void* first = QMX_HeapMalloc(8);
    void* second = QMX_HeapMalloc(4242);
    void* third = QMX_HeapMalloc(8);
    QMX_HeapFailAt(0);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_TRUE(log.Has("malloc (size:4242) failed"));
    EXPECT_EQ(log.LevelOf("malloc (size:4242) failed"), 4u);
    QMX_HeapFree(first);
    QMX_HeapFree(third);
    QMX_HeapFree(b);
    QMX_HeapFree(nullptr);
    EXPECT_EQ(QMX_HeapLiveBytes(), base);
}
