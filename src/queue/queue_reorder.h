// Sequence-reordering queue: RTP packets go in as they arrive and come out
// in sequence-number order. One thread adds and takes, so there is no lock.
#pragma once

#include <cstdint>

struct QUEUE_ADJUST_PKT_SEQ {
    uint8_t* slots = nullptr; // slotCount x slotStride: [filled:1][length:4][bytes]
    uint32_t slotCount = 0;
    uint32_t readIndex = 0;
    uint32_t slotStride = 0; // maximum packet size + 5
    uint32_t firstPacket = 1;
    uint16_t prevSeq = 0;   // sequence number of the last packet taken
    uint32_t lateCount = 0; // packets older than the last taken, dropped
};

// Both arguments non-zero. 0, 2 invalid, 3 no memory.
uint32_t QUEUE_InitAdjustPktSeqQueue(QUEUE_ADJUST_PKT_SEQ* q, uint32_t maxPacketSize, uint32_t slotCount);
void QUEUE_ReleaseAdjustPktSeqQueue(QUEUE_ADJUST_PKT_SEQ* q);

// Stores one RTP packet in the slot its sequence number gives. 0, or 2 for
// an oversize or non-RTP packet.
uint32_t QUEUE_AddAdjustPktSeqData(const uint8_t* packet, uint32_t length, QUEUE_ADJUST_PKT_SEQ* q);

// Takes the next packet in sequence: *packet points into the slot and stays
// valid until the next add. 0, or 261 while the next packet is missing.
uint32_t QUEUE_GetAdjustPktSeqData(QUEUE_ADJUST_PKT_SEQ* q, uint8_t** packet, uint32_t* length);
