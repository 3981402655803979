// Picture queues between the decode thread (one writer) and the render
// thread (one reader): a ring of picture nodes. The node the renderer holds
// is never written; when the writer catches up with it, the oldest unread
// picture is dropped instead.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "queue/queue_wait.h"

// An object that travels with a picture (overlay data, stream metadata) and
// is released when its node is reused or the queue is released.
struct QUEUE_ATTACHED {
    void* data = nullptr;
    void (*release)(void* data) = nullptr;
};

// A picture to add: YUV 4:2:0 planes in I420 order.
struct QUEUE_PICTURE {
    const uint8_t* planes[3] = {};
    uint32_t lineSizes[3] = {};
    uint32_t width = 0;
    uint32_t height = 0;
    uint64_t presentation = 0;  // time stamp of the picture
    uint32_t attribute = 0;     // further value copied from the decoder output
    QUEUE_ATTACHED attached[2]; // ownership passes to the queue
};

struct QUEUE_PICTURE_NODE {
    uint8_t* buffer = nullptr; // Y, U and V planes in one block
    uint32_t bufferSize = 0;
    uint8_t* planes[3] = {};
    uint32_t lineSizes[3] = {};
    uint32_t width = 0;
    uint32_t height = 0;
    uint64_t presentation = 0;
    uint32_t attribute = 0;
    QUEUE_ATTACHED attached[2];
    uint32_t inUse = 0;          // held by the renderer
    uint32_t defaultPicture = 0; // the dark-grey start picture
    QUEUE_PICTURE_NODE* next = nullptr;
};

struct QUEUE_PICTURE_QUEUE {
    QUEUE_PICTURE_NODE* nodes = nullptr; // nodeCount nodes, linked into a ring
    uint32_t nodeCount = 0;
    QUEUE_PICTURE_NODE* write = nullptr;
    QUEUE_PICTURE_NODE* read = nullptr;
    uint32_t hasPicture = 0;
    uint32_t dropped = 0; // unread pictures given up for newer ones
    std::mutex lock;
    QUEUE_READER_WAIT reader; // the renderer waits here for a picture
};

// Decoded-picture queue: node count nodes, the first holding an 800 x 600
// dark-grey default picture. 0, 2 invalid, 3 no memory.
uint32_t QUEUE_InitDecodedBufferQueue(QUEUE_PICTURE_QUEUE* q, uint32_t nodeCount);
// Off-screen picture queue of the display: same ring, no default picture.
uint32_t QUEUE_InitOffScreenBufferQueue(QUEUE_PICTURE_QUEUE* q, uint32_t nodeCount);
void QUEUE_ReleasePictureQueue(QUEUE_PICTURE_QUEUE* q);

// Copies a picture in. 0, 2 bad picture, 3 no memory (the attached objects
// are released in every failure case).
uint32_t QUEUE_AddDecodeData(const QUEUE_PICTURE* picture, QUEUE_PICTURE_QUEUE* q);

// Hands the renderer the next picture. *node is the node the renderer held
// (null at first); on success it is released and *node becomes the new one,
// held until the next successful call. 0, or 261 with *node unchanged.
uint32_t QUEUE_GetDecodeData(QUEUE_PICTURE_QUEUE* q, QUEUE_PICTURE_NODE** node);

// Waits up to ms for a picture to take, so the renderer sleeps until one is
// decoded instead of polling. True when there is one.
bool QUEUE_WaitPicture(QUEUE_PICTURE_QUEUE* q, uint32_t ms);
// Ends the renderer's wait without a picture (a stop).
void QUEUE_WakePictureReader(QUEUE_PICTURE_QUEUE* q);

// Pictures written and not yet taken.
uint32_t QUEUE_PictureCount(QUEUE_PICTURE_QUEUE* q);
