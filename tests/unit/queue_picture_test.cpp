// Picture queues: default picture, the held picture is never written,
// oldest pictures give way, attached objects are released exactly once.
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "queue/queue_picture.h"

namespace {

std::atomic<int> g_released{0};
void CountRelease(void* p)
{
    ++g_released;
    delete static_cast<int*>(p);
}

// A picture whose every byte says which picture it is.
struct TestPicture {
    std::vector<uint8_t> y, u, v;
    QUEUE_PICTURE pic;
    TestPicture(uint32_t w, uint32_t h, uint32_t id, uint32_t pad = 0)
    {
        uint32_t ls = w + pad;
        y.assign(static_cast<size_t>(ls) * h, static_cast<uint8_t>(id));
        u.assign(static_cast<size_t>(ls / 2) * ((h + 1) / 2), static_cast<uint8_t>(id + 1));
        v.assign(u.size(), static_cast<uint8_t>(id + 2));
        pic.planes[0] = y.data();
        pic.planes[1] = u.data();
        pic.planes[2] = v.data();
        pic.lineSizes[0] = ls;
        pic.lineSizes[1] = pic.lineSizes[2] = ls / 2;
        pic.width = w;
        pic.height = h;
        pic.presentation = id;
        pic.attached[0] = {new int(static_cast<int>(id)), &CountRelease};
    }
};

bool NodeIs(const QUEUE_PICTURE_NODE* n, uint32_t id)
{
    uint8_t b = static_cast<uint8_t>(id);
    size_t ySize = static_cast<size_t>(n->lineSizes[0]) * n->height;
    size_t cSize = static_cast<size_t>(n->lineSizes[1]) * ((n->height + 1) / 2);
    for (size_t i = 0; i < ySize; i += 7) {
        if (n->planes[0][i] != b) {
            return false;
        }
    }
    for (size_t i = 0; i < cSize; i += 5) {
        if (n->planes[1][i] != static_cast<uint8_t>(b + 1) || n->planes[2][i] != static_cast<uint8_t>(b + 2)) {
            return false;
        }
    }
    return n->presentation == id;
}

struct PictureQueueTest : ::testing::Test {
    QUEUE_PICTURE_QUEUE q;
    void SetUp() override { g_released = 0; }
    void TearDown() override { QUEUE_ReleasePictureQueue(&q); }
};

} // namespace

TEST_F(PictureQueueTest, DefaultPictureThenNewestWinsWithoutTouchingTheHeldOne)
{
    ASSERT_EQ(QUEUE_InitDecodedBufferQueue(&q, 3), KORVALEN_OK);
    QUEUE_PICTURE_NODE* held = nullptr;
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_EQ((std::vector<uint32_t>{held->width, held->height, held->defaultPicture}),
              (std::vector<uint32_t>{800, 600, 1}));
    EXPECT_EQ(held->planes[0][800 * 600 - 1], 62);
    EXPECT_EQ(held->planes[1][0], 128);
    EXPECT_EQ(held->planes[2][400 * 300 - 1], 128);
    EXPECT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_ERR_BUFFER_EMPTY);
    EXPECT_EQ(held->defaultPicture, 1u) << "still shown while nothing new arrives";

    // Five pictures while the default is on screen: only the two newest
    // remain (three nodes, one held), and the held one is intact.
    for (uint32_t id = 10; id < 15; ++id) {
        TestPicture p(64, 48, id, 16);
        ASSERT_EQ(QUEUE_AddDecodeData(&p.pic, &q), KORVALEN_OK);
        EXPECT_EQ(held->planes[0][0], 62) << "the picture on display is never overwritten";
    }
    EXPECT_EQ(QUEUE_PictureCount(&q), 2u);
    EXPECT_EQ(g_released.load(), 3) << "the dropped pictures' objects are released";
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_TRUE(NodeIs(held, 13));
    EXPECT_EQ(held->lineSizes[0], 80u);
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_TRUE(NodeIs(held, 14));
    EXPECT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_ERR_BUFFER_EMPTY);

    // A new size re-lays the node out; an odd height keeps its last chroma row.
    TestPicture big(35, 21, 40);
    ASSERT_EQ(QUEUE_AddDecodeData(&big.pic, &q), KORVALEN_OK);
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_TRUE(NodeIs(held, 40));
    QUEUE_ReleasePictureQueue(&q);
    EXPECT_EQ(g_released.load(), 6) << "release gives back what the nodes hold";
}

TEST_F(PictureQueueTest, TwoNodesAndOneNode)
{
    ASSERT_EQ(QUEUE_InitOffScreenBufferQueue(&q, 2), KORVALEN_OK);
    QUEUE_PICTURE_NODE* held = nullptr;
    EXPECT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_ERR_BUFFER_EMPTY) << "no default picture off screen";
    TestPicture a(16, 12, 1), b(16, 12, 2), c(16, 12, 3);
    ASSERT_EQ(QUEUE_AddDecodeData(&a.pic, &q), KORVALEN_OK);
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    ASSERT_EQ(QUEUE_AddDecodeData(&b.pic, &q), KORVALEN_OK);
    ASSERT_EQ(QUEUE_AddDecodeData(&c.pic, &q), KORVALEN_OK);
    EXPECT_TRUE(NodeIs(held, 1));
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_TRUE(NodeIs(held, 3));
    QUEUE_ReleasePictureQueue(&q);

    ASSERT_EQ(QUEUE_InitDecodedBufferQueue(&q, 1), KORVALEN_OK);
    TestPicture d(16, 12, 4);
    ASSERT_EQ(QUEUE_AddDecodeData(&d.pic, &q), KORVALEN_OK);
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_TRUE(NodeIs(held, 4));
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK) << "a single node is always there";
}

TEST_F(PictureQueueTest, BadPicturesAndAllocationFailures)
{
    LogCapture log;
    QUEUE_PICTURE_QUEUE* none = nullptr;
    EXPECT_EQ(QUEUE_InitDecodedBufferQueue(none, 3), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("QUEUE_InitDecodedBufferQueue fail, DecodedBufferQueue is null"));
    EXPECT_EQ(QUEUE_InitDecodedBufferQueue(&q, 0), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("QUEUE_InitDecodedBufferQueue fail, buffer num is zero"));

    uint64_t live = QMX_HeapLiveBytes();
    for (uint64_t n = 1; n <= 2; ++n) {
        QMX_HeapFailAt(n);
        EXPECT_EQ(QUEUE_InitDecodedBufferQueue(&q, 3), KORVALEN_ERR_NO_MEMORY) << n;
        QMX_HeapFailAt(0);
        EXPECT_EQ(QMX_HeapLiveBytes(), live) << n;
    }
    EXPECT_TRUE(log.Has("malloc (size:720000) failed"));
    QMX_HeapFailAt(1);
    EXPECT_EQ(QUEUE_InitOffScreenBufferQueue(&q, 3), KORVALEN_ERR_NO_MEMORY);
    QMX_HeapFailAt(0);
    EXPECT_EQ(log.Count("QUEUE_InitOffScreenBufferQueue fail, malloc (size:"), 1u);

    ASSERT_EQ(QUEUE_InitDecodedBufferQueue(&q, 3), KORVALEN_OK);
    TestPicture narrow(64, 8, 5);
    narrow.pic.lineSizes[0] = 32;
    EXPECT_EQ(QUEUE_AddDecodeData(&narrow.pic, &q), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("QUEUE_AddDecodeData warm, LineSize:32 < Width:64"));
    TestPicture noU(64, 8, 6);
    noU.pic.planes[1] = nullptr;
    EXPECT_EQ(QUEUE_AddDecodeData(&noU.pic, &q), KORVALEN_ERR_INVALID_PARAM);
    TestPicture ok(64, 8, 7);
    QMX_HeapFailAt(1); // the node's picture buffer
    EXPECT_EQ(QUEUE_AddDecodeData(&ok.pic, &q), KORVALEN_ERR_NO_MEMORY);
    QMX_HeapFailAt(0);
    EXPECT_EQ(g_released.load(), 3) << "refused pictures give their objects back";
}

// One decode thread and one render thread: whatever the timing, the
// renderer's picture stays intact while it holds it, pictures come out in
// order, and every attached object is released once.
TEST_F(PictureQueueTest, WriterAndReaderThreadsNeverShareANode)
{
    ASSERT_EQ(QUEUE_InitDecodedBufferQueue(&q, 3), KORVALEN_OK);
    constexpr uint32_t kPictures = 3000;
    std::atomic<bool> done{false};
    std::atomic<int> corrupt{0};
    std::atomic<int> outOfOrder{0};
    std::atomic<uint32_t> shown{0};
    std::atomic<uint32_t> defaultShown{0};
    std::thread reader([&] {
        std::mt19937 rng(1);
        QUEUE_PICTURE_NODE* held = nullptr;
        uint32_t last = 0;
        while (!done || QUEUE_PictureCount(&q) > 0) {
            if (QUEUE_GetDecodeData(&q, &held) != KORVALEN_OK) {
                std::this_thread::yield();
                continue;
            }
            if (held->defaultPicture) {
                ++defaultShown;
                continue;
            }
            uint32_t id = static_cast<uint32_t>(held->presentation);
            if (id <= last) {
                ++outOfOrder;
            }
            last = id;
            ++shown;
            // "Display" for a while, then check nothing changed underneath.
            if (rng() % 4 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(rng() % 300));
            }
            if (!NodeIs(held, id)) {
                ++corrupt;
            }
        }
    });
    for (uint32_t id = 1; id <= kPictures; ++id) {
        TestPicture p(48 + (id / 1000) * 16, 32, id); // two size changes on the way
        ASSERT_EQ(QUEUE_AddDecodeData(&p.pic, &q), KORVALEN_OK);
        if (id % 3 == 0) {
            std::this_thread::yield();
        }
    }
    done = true;
    reader.join();
    EXPECT_EQ(corrupt.load(), 0);
    EXPECT_EQ(outOfOrder.load(), 0);
    EXPECT_GT(shown.load(), 0u);
    EXPECT_EQ(shown.load() + defaultShown.load() + q.dropped, kPictures + 1)
        << "every picture, the default one too, was shown or given up";
    QUEUE_ReleasePictureQueue(&q);
    EXPECT_EQ(g_released.load(), static_cast<int>(kPictures));
}
