#include "queue/queue_reorder.h"

#include <cstring>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kSlotHeader = 5;      // filled flag + 32-bit length
constexpr uint16_t kLateWindow = 0x8000; // a distance this large means "behind"
constexpr uint32_t kLateLogEvery = 100;
constexpr uint32_t kMinPacket = 12;

inline uint8_t* Slot(QUEUE_ADJUST_PKT_SEQ* q, uint32_t index)
{
    return q->slots + static_cast<size_t>(index) * q->slotStride;
}

inline uint16_t SeqOf(const uint8_t* packet)
{
    return static_cast<uint16_t>((packet[2] << 8) | packet[3]);
}

void StoreSlot(QUEUE_ADJUST_PKT_SEQ* q, uint32_t index, const uint8_t* packet, uint32_t length)
{
    uint8_t* slot = Slot(q, index);
    // The copy never leaves the slot; the stored length says what was kept.
    uint32_t room = q->slotStride - kSlotHeader;
    uint32_t n = length < room ? length : room;
    slot[0] = 1;
    std::memcpy(slot + 1, &n, sizeof n);
    std::memcpy(slot + kSlotHeader, packet, n);
}

} // namespace

uint32_t QUEUE_InitAdjustPktSeqQueue(QUEUE_ADJUST_PKT_SEQ* q, uint32_t maxPacketSize, uint32_t slotCount)
{
    // A slot must at least hold an RTP header, whose sequence number the
    // take reads back.
    if (!q || maxPacketSize < kMinPacket || slotCount == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QUEUE_InitAdjustPktSeqQueue failed, invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint64_t stride = static_cast<uint64_t>(maxPacketSize) + kSlotHeader;
    auto* slots = static_cast<uint8_t*>(QMX_HeapMalloc(stride * slotCount));
    if (!slots) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    QMX_HeapFree(q->slots);
    q->slots = slots; // zero-filled: every filled flag is clear
    q->slotCount = slotCount;
    q->slotStride = static_cast<uint32_t>(stride);
    q->readIndex = 0;
    q->firstPacket = 1;
    q->prevSeq = 0;
    q->lateCount = 0;
    return KORVALEN_OK;
}

void QUEUE_ReleaseAdjustPktSeqQueue(QUEUE_ADJUST_PKT_SEQ* q)
{
    if (!q) {
        return;
    }
    QMX_HeapFree(q->slots);
    *q = QUEUE_ADJUST_PKT_SEQ{};
}

uint32_t QUEUE_AddAdjustPktSeqData(const uint8_t* packet, uint32_t length, QUEUE_ADJUST_PKT_SEQ* q)
{
    if (!q || !q->slots) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (length >= q->slotStride) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Buffer size %d out of queue buffer:%d", length, q->slotStride);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (length == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Buffer size %d out of queue buffer:%d", length, q->slotStride);
        return KORVALEN_OK;
    }
    if (!packet || length < 4 || (packet[0] & 0xC0) != 0x80) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QUEUE_AddAdjustPktSeqData failed, invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint16_t seq = SeqOf(packet);
    if (q->firstPacket) {
        StoreSlot(q, q->readIndex, packet, length);
        q->firstPacket = 0;
        // Until the first take, packets are placed relative to this one.
        q->prevSeq = static_cast<uint16_t>(seq - 1);
        return KORVALEN_OK;
    }
    uint16_t d = static_cast<uint16_t>(seq - q->prevSeq);
    if (d == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "QUEUE_AddAdjustPktSeqData warm, CurSequenceNum(%u), PreSequence(%u)", seq,
                     q->prevSeq);
        d = 1;
    } else if (d >= kLateWindow) {
        // Older than the packet last taken: it has been passed on or given
        // up already, and letting it in would reorder the stream backwards.
        if (q->lateCount++ % kLateLogEvery == 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN,
                         "QUEUE_AddAdjustPktSeqData warm, late packet(%u), PreSequence(%u), count(%u)", seq, q->prevSeq,
                         q->lateCount);
        }
        return KORVALEN_OK;
    }
    if (static_cast<uint32_t>(d - 1) >= q->slotCount) {
        // Further ahead than the ring is long: the packets in between are
        // given up and this one is the next to be taken.
        for (uint32_t i = 0; i < q->slotCount; ++i) {
            Slot(q, i)[0] = 0;
        }
        q->prevSeq = static_cast<uint16_t>(seq - 1);
        StoreSlot(q, q->readIndex, packet, length);
        return KORVALEN_OK;
    }
    StoreSlot(q, (q->readIndex + d - 1) % q->slotCount, packet, length);
    return KORVALEN_OK;
}

uint32_t QUEUE_GetAdjustPktSeqData(QUEUE_ADJUST_PKT_SEQ* q, uint8_t** packet, uint32_t* length)
{
    if (!q || !q->slots || !packet || !length) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint8_t* slot = Slot(q, q->readIndex);
    if (slot[0] == 0) {
        return KORVALEN_ERR_BUFFER_EMPTY;
    }
    slot[0] = 0;
    uint32_t n;
    std::memcpy(&n, slot + 1, sizeof n);
    *packet = slot + kSlotHeader;
    *length = n;
    q->readIndex = (q->readIndex + 1) % q->slotCount;
    q->prevSeq = SeqOf(slot + kSlotHeader);
    return KORVALEN_OK;
}
