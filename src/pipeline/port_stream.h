// A port's stream state: pushed input, the parser's assembly and current
// frame, the decoders, and the decode thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "codec/code_types.h"
#include "demux/flv_parser.h"
#include "demux/ts_parser.h"
#include "media/rtp_payload.h"
#include "net/net_socket.h"
#include "rtp/rtp.h"

constexpr uint32_t kFrameBufferSize = 0x200000; // 2 MiB, video assembly
constexpr uint32_t kAudioBufferSize = 10240;
constexpr uint32_t kStreamSlotPayload = 2048;

enum ParseMode : uint32_t {
    PARSE_NONE = 0,
    PARSE_TS = 1,
    PARSE_RTP = 2,
    PARSE_FLV = 4,
};

// The frame the parser published last.
struct StreamFrame {
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    uint64_t timestamp = 0; // 90 kHz
    uint32_t codecType = 9;
    uint32_t frameType = 0; // 0 key, 1 other, 0xFFFFFFFF JPEG; audio: sub-type
};

struct PortStream {
    std::atomic<uint32_t> decodeRunning{0};
    std::atomic<uint32_t> drainRequest{0}; // the source has ended: drain once all is decoded
    std::thread decodeThread;
    uint8_t* frameBuffer = nullptr;
    uint8_t* audioBuffer = nullptr;
    RTP_PAYLOAD_TABLE payloads{};
    uint8_t aacConfig[3] = {};
    uint32_t parseMode = PARSE_NONE;
    uint32_t headerPending = 0;
    StreamFrame frame;
    uint32_t frameRate = 25;
    uint32_t rateFromStream = 0;
    uint32_t width = 0; // H.265 size from the parameter sets, and whether it changed
    uint32_t height = 0;
    uint32_t resolutionChanged = 0;
    uint64_t prevTimestamp = 0;
    uint32_t hasPrevTimestamp = 0;
    uint32_t waitKeyFrame = 0;
    uint32_t soundDecode = 1; // decode audio frames
    TS_PARSER ts;
    FLV_PARSER flv;
    uint8_t* flvTag = nullptr; // made on the first FLV chunk
    RTP_STREAM_INFO rtpVideo;
    RTP_STREAM_INFO rtpAudio;
    // Decoders, made on the first frame of their codec.
    CODE_HANDLE video{};
    uint32_t videoOpen = 0;
    uint32_t gpuFallback = 0; // the GPU failed this stream: software from now on
    CODE_HANDLE audio{};
    uint32_t audioOpen = 0;
    CODE_OUTPUT videoOut;
    CODE_OUTPUT audioOut;
    uint32_t decodedFrames = 0;
    uint32_t decodeFailures = 0;
    uint32_t lostPackets = 0;
    NET_LOSTSTAT loss{}; // RTP sequence gaps, for the lost-packet rate
};
