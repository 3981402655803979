// A port's recorder: record type, names, division limits, the finished-file
// list, the record packet queue and thread, and the snapshot request.
#pragma once

#include "media/rtp_payload.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <thread>

#include "codec/code_types.h"
#include "queue/queue_packet.h"
#include "record/record_frames.h"
#include "record/record_naming.h"

struct REC_MUX;

struct REC_FILE_NODE {
    char name[kRecordNameMax];
    REC_FILE_NODE* next;
};

struct REC_SNAP_REQUEST {
    std::mutex lock;
    std::atomic<uint32_t> pending{0};
    uint32_t format = 0; // 0 JPEG, 1 BMP
    char fileName[kRecordNameMax] = {};
};

struct PortRecorder {
    // Wired by the port at allocation: its number for log lines, and the
    // stream settings the assembly of received packets needs.
    uint32_t port = 0;
    const RTP_PAYLOAD_TABLE* payloads = nullptr;
    const uint8_t* aacConfig = nullptr;
    uint32_t recordType = 0;
    REC_FILE_NODE* head = nullptr; // finished files, oldest first
    REC_FILE_NODE* tail = nullptr;
    uint32_t count = 0;
    char tempName[kRecordNameMax] = {};
    char baseName[kRecordNameMax] = {};
    uint32_t partCounter = 0;
    uint64_t sizeLimit = kRecordSizeDefault;
    uint32_t timeLimit = 0; // seconds
    time_t fileStartTime = 0;
    uint32_t callerStart = 0;
    uint32_t callerEnd = 0;

    std::atomic<uint32_t> recording{0};
    QUEUE_PACKET_BUFFER queue;
    std::thread thread;
    std::mutex lock;     // names and the finished-file list, between the thread and the API
    std::mutex feedLock; // sources adding packets against the queue's release
    REC_MUX* mux = nullptr;
    std::atomic<uint64_t> fileSize{0};
    uint32_t failed = 0; // error that ended this recording's writing: 264, 262 or 7

    // Thread state.
    REC_ASSEMBLY assembly;
    uint8_t paramSets[1024] = {}; // the latest parameter sets, Annex B
    uint32_t paramLen = 0;
    uint32_t videoCodec = KORVALEN_CODEC_NONE;
    uint64_t lastPts = 0;
    uint64_t firstTs = 0;
    uint64_t prevSrcTs = 0;
    uint32_t haveTs = 0;
    uint32_t frameRate = 25;
    uint32_t divideWanted = 0;
    CODE_HANDLE audioDec{};
    uint32_t audioDecCodec = KORVALEN_CODEC_NONE;
    CODE_OUTPUT audioOut;
    CODE_HANDLE mp2Enc{};
    uint32_t mp2Open = 0;
    uint32_t mp2Rate = 0;
    uint32_t mp2Channels = 0;

    REC_SNAP_REQUEST snap;

    ~PortRecorder();
};
