// Packet buffer: a ring of fixed-size slots carrying variable-length packets
// from any number of writers to one reader. A packet longer than one slot's
// payload spans consecutive slots; the first slot's length word holds the
// whole length, each following one the bytes still remaining.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

struct QUEUE_PACKET_BUFFER {
    uint8_t* slots = nullptr;   // slotCount x slotStride bytes
    uint8_t* readBuf = nullptr; // where a taken packet is reassembled
    uint32_t slotCount = 0;
    std::atomic<uint32_t> writeIndex{0};
    std::atomic<uint32_t> readIndex{0};
    uint32_t slotStride = 0;             // slot payload + 4-byte length word
    uint32_t fullCount = 0;              // refused adds, thins out the "full" log
    std::atomic<uint32_t> frameCount{0}; // whole video frames waiting
    uint32_t readBufSize = 0;
    std::mutex lock; // serialises writers
};

// Allocates the ring and the 10240-byte read buffer. 0, or 3 on no memory.
uint32_t QUEUE_InitPacketBuffer(QUEUE_PACKET_BUFFER* q, uint32_t slotPayload, uint32_t slotCount);
void QUEUE_ReleasePacketBuffer(QUEUE_PACKET_BUFFER* q);

// Adds a whole packet or nothing: 0, 260 when it does not fit, 2 when the
// queue has no slots.
uint32_t QUEUE_AddPacket(const uint8_t* data, uint32_t length, QUEUE_PACKET_BUFFER* q);

// Takes the oldest packet: *data points into the read buffer until the next
// get. 0, 261 when empty, 3 when the read buffer cannot grow. One reader only.
uint32_t QUEUE_GetPacket(QUEUE_PACKET_BUFFER* q, uint8_t** data, uint32_t* length);

// Occupied slots, (write - read + count) mod count.
uint32_t QUEUE_OccupiedSlots(const QUEUE_PACKET_BUFFER* q);
