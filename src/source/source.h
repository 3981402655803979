// The source interface: what every producer of a port's data (live network
// stream, pushed stream, media file, HLS, and any later one) offers the port,
// and the sink through which it hands data on to the port's pipeline.
//
// A source is one table of operations plus the state its open made. The
// port keeps the pair and knows nothing of the state's insides; the pipeline
// gives the source a sink and knows nothing of where the data comes from.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "korvalen_types.h"
#include "media/rtp_payload.h"

enum SourceKind : uint32_t {
    SOURCE_NONE = 0,
    SOURCE_INPUT_STREAM = 1,
    SOURCE_NET_STREAM = 2,
    SOURCE_MEDIA_FILE = 3,
    SOURCE_VOICE = 4,
    SOURCE_HLS = 5,
};

struct FileFrameInfo;

// Frame flags for SOURCE_SINK::frame.
enum SourceFrameFlags : uint32_t {
    SOURCE_FRAME_SHOW = 0,
    SOURCE_FRAME_QUIET = 1, // decode only: a step back passes over the frames before its target
};

// What the pipeline offers a source. ctx is the pipeline's; every operation
// may be called from the source's own thread.
struct SOURCE_SINK {
    void* ctx = nullptr;
    uint32_t port = 0;                              // for log lines and run messages
    const RTP_PAYLOAD_TABLE* payloads = nullptr;    // the port's payload-type table
    const std::atomic<uint32_t>* feed = nullptr;    // 0: data goes only to the callbacks and the recorder
    const std::atomic<uint32_t>* playing = nullptr; // file and HLS pacing: 0 paused, 1 playing
    const std::atomic<float>* speed = nullptr;      // file pacing: the play speed factor
    // A received packet or pushed chunk: the source callback, the recorder,
    // then the packet buffer (waiting while keepTrying allows, at most
    // maxRetries times when non-zero). 0, 524 refused, 260 full.
    uint32_t (*packet)(void* ctx, const uint8_t* data, uint32_t length, const std::atomic<uint32_t>* keepTrying,
                       uint32_t logEvery, uint32_t maxRetries) = nullptr;
    // Straight into the packet buffer, past the callbacks and the recorder
    // (frames a source has already parsed). 0, or 260 when it is full.
    uint32_t (*queue)(void* ctx, const uint8_t* data, uint32_t length) = nullptr;
    // Starts (1) or pauses (0) paced delivery.
    void (*play)(void* ctx, uint32_t on) = nullptr;
    // A whole frame read from a container: parsed, decoded and shown (or
    // only decoded with SOURCE_FRAME_QUIET).
    void (*frame)(void* ctx, const FileFrameInfo* frame, uint32_t flags) = nullptr;
    // The source has ended: show what the decoder still holds (at once for a
    // source that decodes on its own thread, else once the queue is empty).
    void (*drain)(void* ctx) = nullptr;
    // Starts decoding over (HLS jumps to another time): empties the queues
    // and decoders. 0 or the error of reopening.
    uint32_t (*restart)(void* ctx) = nullptr;
    // The source learnt the stream's frame rate (frames per second).
    void (*frameRate)(void* ctx, uint32_t rate) = nullptr;
    // Blocks waiting in the port's sound ring, -1 when no sound plays: file
    // pacing leans on it to keep sound fed.
    int32_t (*soundLevel)(void* ctx) = nullptr;
};

struct SOURCE_STATS {
    uint32_t bitRate = 0; // bits per second received, 0 when the source does not count
};

// One kind of source. open takes the kind's own parameter record; start
// begins delivery (its thread), stop ends it and waits for the thread, close
// frees what open made. Optional operations may be null.
struct SOURCE_OPS {
    const char* name;
    uint32_t kind; // SourceKind
    uint32_t (*open)(const void* params, const SOURCE_SINK* sink, void** state);
    uint32_t (*start)(void* state);
    void (*stop)(void* state);
    void (*close)(void* state);
    void (*stats)(void* state, SOURCE_STATS* out);
    // Frames come whole through sink.frame on the source's own thread: the
    // port opens no packet buffer and no decode thread for it.
    bool framesWhole;
};

// A port's source: its operations and the state its open made.
struct SOURCE {
    const SOURCE_OPS* ops = nullptr;
    void* state = nullptr;
    SOURCE_SINK sink;
};

// The worker thread every threaded source runs, written once: start sets
// running and starts fn(arg); stop clears running and joins.
struct SOURCE_THREAD {
    std::thread thread;
    std::atomic<uint32_t> running{0};
};

template <class F, class A> uint32_t SOURCE_StartThread(SOURCE_THREAD* t, F fn, A* arg)
{
    t->running = 1;
    try {
        t->thread = std::thread(fn, arg);
    } catch (...) {
        t->running = 0;
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

inline void SOURCE_StopThread(SOURCE_THREAD* t)
{
    t->running = 0;
    if (t->thread.joinable()) {
        t->thread.join();
    }
}
