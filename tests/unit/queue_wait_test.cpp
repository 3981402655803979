// Idle readers sleep on the queues until data comes: the wait ends when a
// writer adds (or a wake asks the reader to look round), not before, and a
// packet already handed out does not count.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korvalen_types.h"
#include "queue/queue_packet.h"
#include "queue/queue_picture.h"

TEST(QueueWait, PacketReaderWakesForNewDataOnly)
{
    QUEUE_PACKET_BUFFER q;
    ASSERT_EQ(QUEUE_InitPacketBuffer(&q, 64, 8), KORVALEN_OK);
    EXPECT_FALSE(QUEUE_WaitPacket(&q, 1)) << "empty";

    const uint8_t small[10] = {1, 2, 3};
    ASSERT_EQ(QUEUE_AddPacket(small, sizeof small, &q), KORVALEN_OK);
    EXPECT_TRUE(QUEUE_WaitPacket(&q, 0));
    uint8_t* data = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(QUEUE_GetPacket(&q, &data, &length), KORVALEN_OK);
    // The packet handed out in place still occupies its slot: it is not new.
    EXPECT_FALSE(QUEUE_WaitPacket(&q, 1));

    // A writer on another thread ends a long wait.
    std::atomic<bool> added{false};
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        std::vector<uint8_t> big(200, 7); // spans slots
        added = QUEUE_AddPacket(big.data(), static_cast<uint32_t>(big.size()), &q) == KORVALEN_OK;
    });
    EXPECT_TRUE(QUEUE_WaitPacket(&q, 10000));
    writer.join();
    ASSERT_TRUE(added);
    ASSERT_EQ(QUEUE_GetPacket(&q, &data, &length), KORVALEN_OK);
    EXPECT_EQ(length, 200u);
    EXPECT_EQ(data[199], 7);
    EXPECT_FALSE(QUEUE_WaitPacket(&q, 1));

    // A wake (a stop, a drain request) ends a long wait with nothing to read.
    std::atomic<int> woken{-1};
    std::thread reader([&] { woken = QUEUE_WaitPacket(&q, 60000) ? 1 : 0; });
    for (int i = 0; i < 200 && woken < 0; ++i) {
        QUEUE_WakePacketReader(&q); // again and again: the reader may not wait yet
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(woken.load(), 0);
    if (woken < 0) {
        QUEUE_AddPacket(small, sizeof small, &q); // let the reader go
    }
    reader.join();
    QUEUE_ReleasePacketBuffer(&q);
    EXPECT_FALSE(QUEUE_WaitPacket(&q, 1)) << "released";
}

TEST(QueueWait, RendererWakesForANewPicture)
{
    QUEUE_PICTURE_QUEUE q;
    EXPECT_FALSE(QUEUE_WaitPicture(&q, 1)) << "not set up";
    ASSERT_EQ(QUEUE_InitOffScreenBufferQueue(&q, 3), KORVALEN_OK);
    EXPECT_FALSE(QUEUE_WaitPicture(&q, 1));

    std::vector<uint8_t> y(16 * 16, 50), u(8 * 8, 60), v(8 * 8, 70);
    QUEUE_PICTURE pic;
    pic.planes[0] = y.data();
    pic.planes[1] = u.data();
    pic.planes[2] = v.data();
    pic.lineSizes[0] = 16;
    pic.lineSizes[1] = pic.lineSizes[2] = 8;
    pic.width = pic.height = 16;
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        QUEUE_AddDecodeData(&pic, &q);
    });
    EXPECT_TRUE(QUEUE_WaitPicture(&q, 10000));
    writer.join();
    QUEUE_PICTURE_NODE* held = nullptr;
    ASSERT_EQ(QUEUE_GetDecodeData(&q, &held), KORVALEN_OK);
    EXPECT_EQ(held->planes[0][0], 50);
    EXPECT_FALSE(QUEUE_WaitPicture(&q, 1)) << "the held picture is not a new one";

    // A stop wakes the renderer with no picture to show.
    std::atomic<int> woken{-1};
    std::thread renderer([&] { woken = QUEUE_WaitPicture(&q, 60000) ? 1 : 0; });
    for (int i = 0; i < 200 && woken < 0; ++i) {
        QUEUE_WakePictureReader(&q);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(woken.load(), 0);
    if (woken < 0) {
        QUEUE_AddDecodeData(&pic, &q); // let the renderer go
    }
    renderer.join();
    QUEUE_ReleasePictureQueue(&q);
}
