#include "queue/queue_packet.h"

#include <chrono>
#include <cstring>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "media/codec_facts.h"
#include "media/rtp_payload.h"

namespace {

constexpr uint32_t kInitialReadBuf = 10240;
constexpr uint32_t kReadBufHeadroom = 10000;
constexpr uint32_t kFullLogEvery = 20;

inline uint32_t LoadWord(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void StoreWord(uint8_t* p, uint32_t v)
{
    std::memcpy(p, &v, sizeof v);
}

uint32_t SlotsFor(uint32_t length, uint32_t payload)
{
    return length == 0 ? 1 : (length + payload - 1) / payload;
}

} // namespace

uint32_t QUEUE_InitPacketBuffer(QUEUE_PACKET_BUFFER* q, uint32_t slotPayload, uint32_t slotCount)
{
    if (!q || slotPayload == 0 || slotCount == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    auto* readBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kInitialReadBuf));
    if (!readBuf) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    uint64_t bytes = static_cast<uint64_t>(slotPayload + 4) * slotCount;
    auto* slots = static_cast<uint8_t*>(QMX_HeapMalloc(bytes));
    if (!slots) {
        QMX_HeapFree(readBuf);
        return KORVALEN_ERR_NO_MEMORY;
    }
    std::lock_guard<std::mutex> lock(q->lock);
    q->readBuf = readBuf;
    q->readBufSize = kInitialReadBuf;
    q->slots = slots;
    q->slotStride = slotPayload + 4;
    q->slotCount = slotCount;
    q->writeIndex.store(0);
    q->readIndex.store(0);
    q->fullCount = 0;
    q->frameCount.store(0);
    q->heldSlots = 0;
    return KORVALEN_OK;
}

void QUEUE_ReleasePacketBuffer(QUEUE_PACKET_BUFFER* q)
{
    if (!q) {
        return;
    }
    std::lock_guard<std::mutex> lock(q->lock);
    QMX_HeapFree(q->slots);
    QMX_HeapFree(q->readBuf);
    q->slots = nullptr;
    q->readBuf = nullptr;
    q->slotCount = 0;
    q->slotStride = 0;
    q->writeIndex.store(0);
    q->readIndex.store(0);
    q->fullCount = 0;
    q->frameCount.store(0);
    q->readBufSize = 0;
    q->heldSlots = 0;
}

namespace {

// countFrame: the packet ends a video frame. The counter goes up before the
// packet becomes visible, so a reader that takes it at once never counts it
// out before it was counted in.
uint32_t AddPacket(const uint8_t* data, uint32_t length, QUEUE_PACKET_BUFFER* q, bool countFrame)
{
    if (!q || (!data && length != 0)) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(q->lock);
    if (q->slotCount == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "QUEUE_AddPacket warm, Buffer Num is zero");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint32_t count = q->slotCount;
    const uint32_t payload = q->slotStride - 4;
    const uint32_t w = q->writeIndex.load(std::memory_order_relaxed);
    const uint32_t r = q->readIndex.load(std::memory_order_acquire);
    const uint32_t freeSlots = (r > w ? r - w : r + count - w) - 1;
    const uint32_t need = SlotsFor(length, payload);
    if (freeSlots == 0) {
        ++q->fullCount;
        return KORVALEN_ERR_BUFFER_FULL;
    }
    if (need > freeSlots) {
        if (++q->fullCount % kFullLogEvery == 1) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, " Buffer Full(%d), count(%d)", count, q->fullCount);
        }
        return KORVALEN_ERR_BUFFER_FULL;
    }
    uint32_t remaining = length;
    uint32_t idx = w;
    const uint8_t* src = data;
    for (uint32_t i = 0; i < need; ++i) {
        uint8_t* slot = q->slots + static_cast<size_t>(idx) * q->slotStride;
        uint32_t chunk = remaining < payload ? remaining : payload;
        StoreWord(slot, remaining);
        if (chunk) {
            std::memcpy(slot + 4, src, chunk);
        }
        src += chunk;
        remaining -= chunk;
        idx = idx + 1 == count ? 0 : idx + 1;
    }
    if (countFrame) {
        q->frameCount.fetch_add(1, std::memory_order_relaxed);
    }
    q->writeIndex.store(idx, std::memory_order_release);
    q->reader.added.notify_one();
    return KORVALEN_OK;
}

} // namespace

uint32_t QUEUE_AddPacket(const uint8_t* data, uint32_t length, QUEUE_PACKET_BUFFER* q)
{
    return AddPacket(data, length, q, false);
}

uint32_t QUEUE_GetPacket(QUEUE_PACKET_BUFFER* q, uint8_t** data, uint32_t* length)
{
    if (!q || !data || q->slotCount == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint32_t count = q->slotCount;
    const uint32_t payload = q->slotStride - 4;
    uint32_t r = q->readIndex.load(std::memory_order_relaxed);
    if (q->heldSlots) {
        // The packet handed out last time is done with: its slot goes back.
        r = r + 1 == count ? 0 : r + 1; // one slot is held at most
        q->heldSlots = 0;
        q->readIndex.store(r, std::memory_order_release);
    }
    if (r == q->writeIndex.load(std::memory_order_acquire)) {
        return KORVALEN_ERR_BUFFER_EMPTY;
    }
    uint8_t* first = q->slots + static_cast<size_t>(r) * q->slotStride;
    const uint32_t total = LoadWord(first);
    if (total <= payload) {
        // One slot: no copy, the reader works on the slot itself.
        *data = first + 4;
        q->heldSlots = 1;
    } else {
        if (total > q->readBufSize) {
            uint64_t grown = static_cast<uint64_t>(total) + kReadBufHeadroom;
            auto* buf = static_cast<uint8_t*>(QMX_HeapMalloc(grown));
            if (!buf) {
                return KORVALEN_ERR_NO_MEMORY;
            }
            QMX_HeapFree(q->readBuf);
            q->readBuf = buf;
            q->readBufSize = static_cast<uint32_t>(grown);
        }
        uint32_t remaining = total;
        uint8_t* dst = q->readBuf;
        while (remaining > 0) {
            const uint8_t* slot = q->slots + static_cast<size_t>(r) * q->slotStride;
            uint32_t chunk = remaining < payload ? remaining : payload;
            std::memcpy(dst, slot + 4, chunk);
            dst += chunk;
            remaining -= chunk;
            r = r + 1 == count ? 0 : r + 1;
        }
        q->readIndex.store(r, std::memory_order_release);
        *data = q->readBuf;
    }
    if (length) {
        *length = total;
    }
    return KORVALEN_OK;
}

bool QUEUE_WaitPacket(QUEUE_PACKET_BUFFER* q, uint32_t ms)
{
    if (!q || q->slotCount == 0) {
        return false;
    }
    auto waiting = [q] {
        uint32_t r = q->readIndex.load(std::memory_order_acquire);
        if (q->heldSlots) {
            r = r + 1 == q->slotCount ? 0 : r + 1;
        }
        return r != q->writeIndex.load(std::memory_order_acquire);
    };
    return QUEUE_WaitReady(q->lock, q->reader, ms, waiting);
}

void QUEUE_WakePacketReader(QUEUE_PACKET_BUFFER* q)
{
    if (!q) {
        return;
    }
    QUEUE_WakeReader(q->lock, q->reader);
}

uint32_t QUEUE_OccupiedSlots(const QUEUE_PACKET_BUFFER* q)
{
    if (!q || q->slotCount == 0) {
        return 0;
    }
    uint32_t w = q->writeIndex.load(std::memory_order_acquire);
    uint32_t r = q->readIndex.load(std::memory_order_acquire);
    return (w - r + q->slotCount) % q->slotCount;
}

bool QUEUE_IsFrameEndPacket(const uint8_t* data, uint32_t length, const RTP_PAYLOAD_TABLE* payloads)
{
    if (!data || length < 3) {
        return false;
    }
    if ((data[0] == 'F' && data[1] == 'L' && data[2] == 'V') || (data[0] == 'f' && data[1] == 'l' && data[2] == 'v')) {
        return true;
    }
    constexpr uint32_t kRtpHeader = 12;
    if (length < kRtpHeader || (data[0] & 0xC0) != 0x80 || (data[1] & 0x80) == 0) {
        return false;
    }
    return Codec_IsVideo(RTP_LookupCodec(data[1] & 0x7F, payloads));
}

uint32_t QUEUE_AddPacketEx(const uint8_t* data, uint32_t length, const RTP_PAYLOAD_TABLE* payloads,
                           QUEUE_PACKET_BUFFER* q)
{
    return AddPacket(data, length, q, QUEUE_IsFrameEndPacket(data, length, payloads));
}

uint32_t QUEUE_GetPacketEx(QUEUE_PACKET_BUFFER* q, uint8_t** data, uint32_t* length, const RTP_PAYLOAD_TABLE* payloads)
{
    uint32_t len = 0;
    uint32_t err = QUEUE_GetPacket(q, data, &len);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (length) {
        *length = len;
    }
    if (QUEUE_IsFrameEndPacket(*data, len, payloads)) {
        // Never below zero: a packet added with the plain add was not counted.
        uint32_t n = q->frameCount.load(std::memory_order_relaxed);
        while (n > 0 && !q->frameCount.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) {
        }
    }
    return KORVALEN_OK;
}
