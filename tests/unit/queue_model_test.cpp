// Model-based tests: long random runs of the packet buffer and the
// reordering queue, checked step by step against simple reference models.
#include <deque>
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "korvalen_types.h"
#include "log_capture.h"
#include "media/rtp_payload.h"
#include "queue/queue_packet.h"
#include "queue/queue_reorder.h"

namespace {

std::vector<uint8_t> RtpPacket(uint16_t seq, uint32_t len, bool marker, uint8_t pt, uint8_t fill)
{
    std::vector<uint8_t> p(len < 12 ? 12 : len, fill);
    p[0] = 0x80;
    p[1] = static_cast<uint8_t>((marker ? 0x80 : 0) | pt);
    p[2] = static_cast<uint8_t>(seq >> 8);
    p[3] = static_cast<uint8_t>(seq);
    return p;
}

} // namespace

// The buffer against a deque that knows only "a packet takes
// max(1, ceil(len / payload)) of the count - 1 usable slots".
TEST(QueueModel, PacketBufferMatchesReferenceModel)
{
    LogCapture quiet; // the full log would flood the run
    std::mt19937 rng(20261122);
    for (uint32_t payload : {16u, 100u, 2048u}) {
        for (uint32_t count : {2u, 7u, 64u}) {
            QUEUE_PACKET_BUFFER q;
            ASSERT_EQ(QUEUE_InitPacketBuffer(&q, payload, count), KORVALEN_OK);
            std::deque<std::vector<uint8_t>> model;
            uint32_t usedSlots = 0;
            uint32_t heldSlots = 0; // a one-slot packet is read in place until the next get
            uint32_t frames = 0;
            auto slotsFor = [&](uint32_t len) { return len == 0 ? 1 : (len + payload - 1) / payload; };
            for (int step = 0; step < 6000; ++step) {
                if (rng() % 100 < 55) {
                    // Lengths around the interesting boundaries, and some far
                    // larger than the free room.
                    uint32_t len;
                    switch (rng() % 6) {
                    case 0:
                        len = payload;
                        break;
                    case 1:
                        len = payload + 1;
                        break;
                    case 2:
                        len = payload - 1;
                        break;
                    case 3:
                        len = payload * (count / 2 + 1) + rng() % payload;
                        break;
                    default:
                        len = 12 + rng() % (payload * 3);
                        break;
                    }
                    bool marker = rng() % 3 == 0;
                    uint8_t pt = rng() % 4 == 0 ? 0 : 96; // 0 is G.711: never a frame end
                    auto pkt = RtpPacket(static_cast<uint16_t>(step), len, marker, pt, static_cast<uint8_t>(rng()));
                    len = static_cast<uint32_t>(pkt.size());
                    uint32_t need = slotsFor(len);
                    uint32_t expect = usedSlots + need <= count - 1 ? KORVALEN_OK : KORVALEN_ERR_BUFFER_FULL;
                    ASSERT_EQ(QUEUE_AddPacketEx(pkt.data(), len, nullptr, &q), expect)
                        << "payload " << payload << " count " << count << " step " << step << " len " << len;
                    if (expect == KORVALEN_OK) {
                        model.push_back(pkt);
                        usedSlots += need;
                        frames += marker && pt == 96;
                    }
                } else {
                    uint8_t* out = nullptr;
                    uint32_t len = 0;
                    uint32_t err = QUEUE_GetPacketEx(&q, &out, &len, nullptr);
                    usedSlots -= heldSlots;
                    heldSlots = 0;
                    if (model.empty()) {
                        ASSERT_EQ(err, KORVALEN_ERR_BUFFER_EMPTY);
                    } else {
                        ASSERT_EQ(err, KORVALEN_OK);
                        ASSERT_EQ(std::vector<uint8_t>(out, out + len), model.front()) << "step " << step;
                        bool end = (out[1] & 0x80) && (out[1] & 0x7F) == 96;
                        frames -= end;
                        if (len <= payload) {
                            heldSlots = 1;
                        } else {
                            usedSlots -= slotsFor(len);
                        }
                        model.pop_front();
                    }
                }
                ASSERT_EQ(QUEUE_OccupiedSlots(&q), usedSlots);
                ASSERT_EQ(q.frameCount.load(), frames) << "frames waiting";
            }
            QUEUE_ReleasePacketBuffer(&q);
        }
    }
}

namespace {

// Reference for the reordering queue: pending packets keyed by their
// distance from the last sequence number taken.
struct ReorderModel {
    uint32_t ring = 0;
    bool first = true;
    uint16_t prev = 0;
    std::map<uint32_t, std::vector<uint8_t>> pending; // distance -> packet

    void Add(const std::vector<uint8_t>& p)
    {
        uint16_t s = static_cast<uint16_t>((p[2] << 8) | p[3]);
        if (first) {
            first = false;
            prev = static_cast<uint16_t>(s - 1);
            pending[1] = p;
            return;
        }
        uint16_t d = static_cast<uint16_t>(s - prev);
        if (d == 0) {
            d = 1; // a repeat of the last one taken lands on the next place
        } else if (d >= 0x8000) {
            return; // behind: dropped
        }
        if (d - 1u >= ring) {
            pending.clear();
            prev = static_cast<uint16_t>(s - 1);
            d = 1;
        }
        pending[d] = p;
    }

    bool Get(std::vector<uint8_t>* out)
    {
        auto it = pending.find(1);
        if (it == pending.end()) {
            return false;
        }
        *out = it->second;
        prev = static_cast<uint16_t>((out->at(2) << 8) | out->at(3));
        std::map<uint32_t, std::vector<uint8_t>> shifted;
        for (auto& [d, pkt] : pending) {
            if (d > 1) {
                shifted[d - 1] = pkt;
            }
        }
        pending.swap(shifted);
        return true;
    }
};

} // namespace

TEST(QueueModel, ReorderQueueMatchesReferenceAcrossTheWrap)
{
    LogCapture quiet;
    std::mt19937 rng(7);
    for (uint32_t ring : {4u, 10u}) {
        QUEUE_ADJUST_PKT_SEQ q;
        ASSERT_EQ(QUEUE_InitAdjustPktSeqQueue(&q, 64, ring), KORVALEN_OK);
        ReorderModel model;
        model.ring = ring;
        // A sender numbering from just below the wrap; the network drops,
        // repeats, delays, and now and then jumps far ahead.
        uint16_t next = 65500;
        std::vector<std::vector<uint8_t>> inFlight;
        for (int step = 0; step < 20000; ++step) {
            if (rng() % 50 == 0) {
                next = static_cast<uint16_t>(next + ring + rng() % 100); // a burst lost
            }
            auto pkt = RtpPacket(next, 12 + rng() % 40, false, 96, static_cast<uint8_t>(step));
            ++next;
            if (rng() % 20 != 0) {
                inFlight.push_back(pkt);
                if (rng() % 15 == 0) {
                    inFlight.push_back(pkt); // duplicated
                }
            }
            // Deliver a random packet of what is in flight (reordering).
            while (!inFlight.empty() && (inFlight.size() > 3 || rng() % 2 == 0)) {
                size_t i = rng() % inFlight.size();
                auto p = inFlight[i];
                inFlight.erase(inFlight.begin() + static_cast<long>(i));
                ASSERT_EQ(QUEUE_AddAdjustPktSeqData(p.data(), static_cast<uint32_t>(p.size()), &q), KORVALEN_OK);
                model.Add(p);
                // The receive thread drains what is ready after each add.
                while (true) {
                    uint8_t* out = nullptr;
                    uint32_t len = 0;
                    std::vector<uint8_t> expect;
                    bool has = model.Get(&expect);
                    uint32_t err = QUEUE_GetAdjustPktSeqData(&q, &out, &len);
                    ASSERT_EQ(err == KORVALEN_OK, has) << "ring " << ring << " step " << step;
                    if (!has) {
                        break;
                    }
                    ASSERT_EQ(std::vector<uint8_t>(out, out + len), expect) << "step " << step;
                }
            }
        }
        QUEUE_ReleaseAdjustPktSeqQueue(&q);
    }
}
