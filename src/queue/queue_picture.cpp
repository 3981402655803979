#include "queue/queue_picture.h"

#include <chrono>
#include <cstring>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kDefaultWidth = 800;
constexpr uint32_t kDefaultHeight = 600;
constexpr uint32_t kDefaultBytes = kDefaultWidth * kDefaultHeight * 3 / 2; // 720000
constexpr uint8_t kDefaultLuma = 62;
constexpr uint8_t kNeutralChroma = 128;

void ReleaseAttached(QUEUE_ATTACHED& a)
{
    if (a.data && a.release) {
        a.release(a.data);
    }
    a = QUEUE_ATTACHED{};
}

void ReleaseAttached(const QUEUE_PICTURE* p)
{
    for (const QUEUE_ATTACHED& a : p->attached) {
        if (a.data && a.release) {
            a.release(a.data);
        }
    }
}

void FreeNodes(QUEUE_PICTURE_QUEUE* q)
{
    for (uint32_t i = 0; i < q->nodeCount; ++i) {
        QUEUE_PICTURE_NODE& n = q->nodes[i];
        ReleaseAttached(n.attached[0]);
        ReleaseAttached(n.attached[1]);
        QMX_HeapFree(n.buffer);
    }
    QMX_HeapFree(q->nodes);
    q->nodes = nullptr;
    q->nodeCount = 0;
    q->read = q->write = nullptr;
    q->hasPicture = 0;
    q->dropped = 0;
}

// Chroma planes hold (height + 1) / 2 rows of half the luma line size.
uint64_t PictureBytes(uint32_t lumaLine, uint32_t height)
{
    return static_cast<uint64_t>(lumaLine) * height + 2ull * (lumaLine / 2) * ((height + 1) / 2);
}

void LayOut(QUEUE_PICTURE_NODE& n, uint32_t lumaLine, uint32_t width, uint32_t height)
{
    uint32_t chromaLine = lumaLine / 2;
    n.lineSizes[0] = lumaLine;
    n.lineSizes[1] = n.lineSizes[2] = chromaLine;
    n.planes[0] = n.buffer;
    n.planes[1] = n.buffer + static_cast<size_t>(lumaLine) * height;
    n.planes[2] = n.planes[1] + static_cast<size_t>(chromaLine) * ((height + 1) / 2);
    n.width = width;
    n.height = height;
}

uint32_t InitRing(QUEUE_PICTURE_QUEUE* q, uint32_t nodeCount, bool withDefault, const char* failFmt)
{
    std::lock_guard<std::mutex> lock(q->lock);
    FreeNodes(q);
    auto* nodes = static_cast<QUEUE_PICTURE_NODE*>(QMX_HeapMalloc(sizeof(QUEUE_PICTURE_NODE) * nodeCount));
    if (!nodes) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, failFmt, static_cast<int>(sizeof(QUEUE_PICTURE_NODE) * nodeCount));
        return KORVALEN_ERR_NO_MEMORY;
    }
    for (uint32_t i = 0; i < nodeCount; ++i) {
        new (&nodes[i]) QUEUE_PICTURE_NODE();
        nodes[i].next = &nodes[(i + 1) % nodeCount];
    }
    if (withDefault) {
        QUEUE_PICTURE_NODE& first = nodes[0];
        first.buffer = static_cast<uint8_t*>(QMX_HeapMalloc(kDefaultBytes));
        if (!first.buffer) {
            QMX_HeapFree(nodes);
            return KORVALEN_ERR_NO_MEMORY;
        }
        first.bufferSize = kDefaultBytes;
        LayOut(first, kDefaultWidth, kDefaultWidth, kDefaultHeight);
        std::memset(first.planes[0], kDefaultLuma, kDefaultWidth * kDefaultHeight);
        std::memset(first.planes[1], kNeutralChroma, kDefaultBytes - kDefaultWidth * kDefaultHeight);
        first.defaultPicture = 1;
    }
    q->nodes = nodes;
    q->nodeCount = nodeCount;
    // With a default picture the first node is waiting to be shown;
    // otherwise the ring starts empty.
    q->read = &nodes[0];
    q->write = withDefault && nodeCount > 1 ? &nodes[1] : &nodes[0];
    return KORVALEN_OK;
}

void CopyPlane(uint8_t* dst, uint32_t dstLine, const uint8_t* src, uint32_t srcLine, uint32_t rowBytes, uint32_t rows)
{
    if (dstLine == srcLine) {
        std::memcpy(dst, src, static_cast<size_t>(dstLine) * rows);
        return;
    }
    uint32_t n = rowBytes < dstLine ? rowBytes : dstLine;
    n = n < srcLine ? n : srcLine;
    for (uint32_t r = 0; r < rows; ++r) {
        std::memcpy(dst + static_cast<size_t>(r) * dstLine, src + static_cast<size_t>(r) * srcLine, n);
    }
}

} // namespace

uint32_t QUEUE_InitDecodedBufferQueue(QUEUE_PICTURE_QUEUE* q, uint32_t nodeCount)
{
    if (!q) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QUEUE_InitDecodedBufferQueue fail, DecodedBufferQueue is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (nodeCount == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QUEUE_InitDecodedBufferQueue fail, buffer num is zero");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return InitRing(q, nodeCount, true, "malloc (size:%d) failed");
}

uint32_t QUEUE_InitOffScreenBufferQueue(QUEUE_PICTURE_QUEUE* q, uint32_t nodeCount)
{
    if (!q || nodeCount == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return InitRing(q, nodeCount, false, "QUEUE_InitOffScreenBufferQueue fail, malloc (size:%d) failed");
}

void QUEUE_ReleasePictureQueue(QUEUE_PICTURE_QUEUE* q)
{
    if (q) {
        std::lock_guard<std::mutex> lock(q->lock);
        FreeNodes(q);
    }
}

uint32_t QUEUE_AddDecodeData(const QUEUE_PICTURE* pic, QUEUE_PICTURE_QUEUE* q)
{
    if (!pic) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!q || !q->nodes || !pic->planes[0] || !pic->planes[1] || !pic->planes[2] || pic->lineSizes[0] == 0 ||
        pic->width == 0 || pic->height == 0) {
        ReleaseAttached(pic);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (pic->lineSizes[0] < pic->width) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "QUEUE_AddDecodeData warm, LineSize:%d < Width:%d", pic->lineSizes[0],
                     pic->width);
        ReleaseAttached(pic);
        return KORVALEN_ERR_INVALID_PARAM;
    }

    QUEUE_PICTURE_NODE* node;
    {
        std::lock_guard<std::mutex> lock(q->lock);
        if (q->nodeCount == 1) {
            node = q->nodes;
        } else if (q->write->inUse) {
            // The renderer holds the node next in line (it sits just behind
            // the read cursor). Write into the oldest unread node instead and
            // link the held node behind it, so the ring order stays oldest to
            // newest: P -> held -> target -> X  becomes  P -> target -> held -> X.
            QUEUE_PICTURE_NODE* held = q->write;
            QUEUE_PICTURE_NODE* target = q->read;
            if (q->nodeCount > 2) {
                QUEUE_PICTURE_NODE* pred = target;
                while (pred->next != held) {
                    pred = pred->next;
                }
                QUEUE_PICTURE_NODE* after = target->next;
                pred->next = target;
                target->next = held;
                held->next = after;
                q->read = after;
            }
            node = target;
            q->write = target;
            ++q->dropped;
        } else {
            node = q->write;
            if (node->next == q->read) {
                // Writing here laps the reader: give up the oldest unread.
                q->read = q->read->next;
                ++q->dropped;
            }
        }
    }

    // Copy outside the lock: the reader stops at the write cursor, which
    // points at this node until the copy is done.
    const uint32_t lumaLine = pic->lineSizes[0];
    const uint32_t h = pic->height;
    if (!node->buffer || node->lineSizes[0] != lumaLine || node->height != h) {
        uint64_t bytes = PictureBytes(lumaLine, h);
        auto* buf = static_cast<uint8_t*>(QMX_HeapMalloc(bytes));
        if (!buf) {
            ReleaseAttached(pic);
            return KORVALEN_ERR_NO_MEMORY;
        }
        QMX_HeapFree(node->buffer);
        node->buffer = buf;
        node->bufferSize = static_cast<uint32_t>(bytes);
    }
    LayOut(*node, lumaLine, pic->width, h);
    const uint32_t chromaRows = (h + 1) / 2;
    const uint32_t chromaWidth = (pic->width + 1) / 2;
    CopyPlane(node->planes[0], lumaLine, pic->planes[0], lumaLine, pic->width, h);
    CopyPlane(node->planes[1], node->lineSizes[1], pic->planes[1], pic->lineSizes[1], chromaWidth, chromaRows);
    CopyPlane(node->planes[2], node->lineSizes[2], pic->planes[2], pic->lineSizes[2], chromaWidth, chromaRows);
    ReleaseAttached(node->attached[0]);
    ReleaseAttached(node->attached[1]);
    node->attached[0] = pic->attached[0];
    node->attached[1] = pic->attached[1];
    node->presentation = pic->presentation;
    node->attribute = pic->attribute;
    node->defaultPicture = 0;

    std::lock_guard<std::mutex> lock(q->lock);
    if (q->nodeCount > 1) {
        q->write = node->next;
    }
    q->hasPicture = 1;
    q->reader.added.notify_one();
    return KORVALEN_OK;
}

bool QUEUE_WaitPicture(QUEUE_PICTURE_QUEUE* q, uint32_t ms)
{
    if (!q) {
        return false;
    }
    auto waiting = [q] { return q->nodes && (q->nodeCount == 1 ? q->nodes->buffer != nullptr : q->read != q->write); };
    return QUEUE_WaitReady(q->lock, q->reader, ms, waiting);
}

void QUEUE_WakePictureReader(QUEUE_PICTURE_QUEUE* q)
{
    if (!q) {
        return;
    }
    QUEUE_WakeReader(q->lock, q->reader);
}

uint32_t QUEUE_GetDecodeData(QUEUE_PICTURE_QUEUE* q, QUEUE_PICTURE_NODE** node)
{
    if (!q || !node) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(q->lock);
    if (!q->nodes) {
        return KORVALEN_ERR_BUFFER_EMPTY;
    }
    if (q->nodeCount == 1) {
        if (!q->nodes->buffer) {
            return KORVALEN_ERR_BUFFER_EMPTY;
        }
        *node = q->nodes;
        return KORVALEN_OK;
    }
    if (q->read == q->write) {
        return KORVALEN_ERR_BUFFER_EMPTY;
    }
    if (*node) {
        (*node)->inUse = 0;
        (*node)->defaultPicture = 0;
    }
    QUEUE_PICTURE_NODE* n = q->read;
    n->inUse = 1;
    q->read = n->next;
    *node = n;
    return KORVALEN_OK;
}

uint32_t QUEUE_PictureCount(QUEUE_PICTURE_QUEUE* q)
{
    if (!q) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(q->lock);
    if (!q->nodes) {
        return 0;
    }
    if (q->nodeCount == 1) {
        return q->hasPicture;
    }
    uint32_t n = 0;
    for (const QUEUE_PICTURE_NODE* p = q->read; p != q->write; p = p->next) {
        ++n;
    }
    return n;
}
