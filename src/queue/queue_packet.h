// Packet buffer: a ring of fixed-size slots carrying variable-length packets
// from any number of writers to one reader. A packet longer than one slot's
// payload spans consecutive slots; the first slot's length word holds the
// whole length, each following one the bytes still remaining.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "queue/queue_wait.h"

struct RTP_PAYLOAD_TABLE;

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
    uint32_t heldSlots = 0;   // reader: slot handed out in place, freed at the next get
    std::mutex lock;          // serialises writers
    QUEUE_READER_WAIT reader; // a reader with nothing to do waits here
};

// Allocates the ring and the 10240-byte read buffer. 0, or 3 on no memory.
uint32_t QUEUE_InitPacketBuffer(QUEUE_PACKET_BUFFER* q, uint32_t slotPayload, uint32_t slotCount);
void QUEUE_ReleasePacketBuffer(QUEUE_PACKET_BUFFER* q);

// Adds a whole packet or nothing: 0, 260 when it does not fit, 2 when the
// queue has no slots.
uint32_t QUEUE_AddPacket(const uint8_t* data, uint32_t length, QUEUE_PACKET_BUFFER* q);

// As QUEUE_AddPacket; a packet that ends a video frame (an RTP packet with
// the marker bit whose payload type is H.264, JPEG or H.265 by the port's
// table, or an FLV tag) also counts one more frame waiting.
uint32_t QUEUE_AddPacketEx(const uint8_t* data, uint32_t length, const RTP_PAYLOAD_TABLE* payloads,
                           QUEUE_PACKET_BUFFER* q);

// Takes the oldest packet: *data stays valid until the next get. A packet
// that fits one slot is handed out in place (its slot is given back at the
// next get); a longer one is reassembled into the read buffer. 0, 261 when
// empty, 3 when the read buffer cannot grow. One reader only.
uint32_t QUEUE_GetPacket(QUEUE_PACKET_BUFFER* q, uint8_t** data, uint32_t* length);

// As QUEUE_GetPacket, and counts a frame-ending packet out of the frames
// waiting, so the counter matches what QUEUE_AddPacketEx counted in.
uint32_t QUEUE_GetPacketEx(QUEUE_PACKET_BUFFER* q, uint8_t** data, uint32_t* length, const RTP_PAYLOAD_TABLE* payloads);

// True for a packet that ends a video frame, by the rule above.
bool QUEUE_IsFrameEndPacket(const uint8_t* data, uint32_t length, const RTP_PAYLOAD_TABLE* payloads);

// Waits up to ms for a packet beyond the one handed out last, so an idle
// reader sleeps until data comes instead of polling. True when one is there.
bool QUEUE_WaitPacket(QUEUE_PACKET_BUFFER* q, uint32_t ms);
// Ends a reader's wait without data: it has something else to see to (a
// stop, a drain request).
void QUEUE_WakePacketReader(QUEUE_PACKET_BUFFER* q);

// Occupied slots, (write - read + count) mod count.
uint32_t QUEUE_OccupiedSlots(const QUEUE_PACKET_BUFFER* q);
