// SEI units of H.264 and H.265 access units: the camera family's own scheme of
// payload types and user-data subtypes carrying coding flags, debug data, a
// watermark, fisheye lens parameters, a sound-source position and analysis
// (IVA) records. One SEI_INFO per port is filled per access unit.
#pragma once

#include <cstdint>

// Presence flags, cleared at the start of each access unit.
enum SeiFlag : uint32_t {
    SEI_FLAG_UCODE = 1,
    SEI_FLAG_DEBUG = 2,
    SEI_FLAG_WATERMARK = 4,
    SEI_FLAG_FISHEYE = 8,
    SEI_FLAG_VOICE = 16,
    SEI_FLAG_IVA_RESULT = 32,
    SEI_FLAG_IVA_RULE = 64,
};

// Payload types and user-data subtypes.
constexpr uint8_t SEI_TYPE_USER_DATA = 5;
constexpr uint8_t SEI_H264_TYPE_DEBUG = 25;
constexpr uint8_t SEI_H264_TYPE_WATERMARK = 26;
constexpr uint8_t SEI_H264_TYPE_UCODE = 33;
constexpr uint8_t SEI_H264_TYPE_FISHEYE = 34;
constexpr uint8_t SEI_H265_TYPE_UCODE = 230;
constexpr uint8_t SEI_H265_TYPE_FISHEYE = 231;
constexpr uint8_t SEI_SUBTYPE_VOICE = 25;
constexpr uint8_t SEI_SUBTYPE_IVA_RESULT = 32;
constexpr uint8_t SEI_SUBTYPE_IVA_RULE = 33;

// IVA record kinds handed to IvaV2Parse.
constexpr uint32_t IVA_KIND_RESULT = 16;
constexpr uint32_t IVA_KIND_RULE = 17;
// Version marker of the analysis payload this parser reads.
constexpr uint32_t SEI_IVA_VERSION = 2;

// A payload buffer of one content kind: lives as long as the port, only
// grows, so steady streams parse without allocating.
struct SEI_BUFFER {
    uint8_t* data = nullptr;
    uint32_t capacity = 0;
    uint32_t length = 0;
};

struct SEI_INFO {
    uint32_t flags = 0; // SeiFlag bits of the last access unit
    SEI_BUFFER ucode;
    SEI_BUFFER debug;
    SEI_BUFFER watermark;
    SEI_BUFFER fisheye;
    SEI_BUFFER voice;
    SEI_BUFFER iva;
    uint8_t codingFlags = 0;
    uint8_t watermarkFields[2][16] = {};
    uint16_t fisheyeParams[3] = {};
    uint16_t voicePosition = 0;
    uint32_t ivaVersion = 0; // kind marker of the IVA payload: 2
    uint32_t errorCount = 0; // failures of every message, for rate-limited logging
    // Where analysis records go, as each message is parsed (results and rules
    // may both come in one access unit). Returns 0 or the record's error.
    uint32_t (*ivaRecord)(void* ctx, uint32_t kind, const uint8_t* data, uint32_t length) = nullptr;
    void* ivaCtx = nullptr;
};

// Frees the payload buffers; the record can be used again.
void Sei_ReleaseInfo(SEI_INFO* info);

// Scans one access unit. streamType: 3 H.264, 8 H.265. 0 when no SEI was
// found, else the result of the last message parsed; 2 for bad arguments.
uint32_t Sei_Parse(uint32_t streamType, const uint8_t* buffer, uint32_t length, SEI_INFO* info);

// One SEI message; buffer starts at its payload type, length is what is left
// of the access unit.
uint32_t Sei_H264Parse(const uint8_t* buffer, uint32_t length, SEI_INFO* info);
uint32_t Sei_H265Parse(const uint8_t* buffer, uint32_t length, SEI_INFO* info);

// Decodes the size field at buffer (available bytes from there on). 0 with
// *size and *fieldLength, or 2.
uint32_t Sei_MathSeiLen(const uint8_t* buffer, uint32_t available, uint32_t* size, uint32_t* fieldLength);

// Removes emulation-prevention bytes (the 03 of 00 00 03) in place; returns
// the new length.
uint32_t Sei_Unescape(uint8_t* data, uint32_t length);

// Content parsers: payload is the message body (the user-data ones start
// after the subtype byte). 0, 2 bad content, 3 no memory.
uint32_t Sei_UcodeParse(const uint8_t* payload, uint32_t length, SEI_INFO* info);
uint32_t Sei_DbugParse(const uint8_t* payload, uint32_t length, SEI_INFO* info);
uint32_t Sei_WatermarkParse(const uint8_t* payload, uint32_t length, SEI_INFO* info);
uint32_t Sei_FisheyeParse(const uint8_t* payload, uint32_t length, SEI_INFO* info);
uint32_t Sei_VoiceLocation(const uint8_t* payload, uint32_t length, SEI_INFO* info);
uint32_t Sei_IvaV2Parse(const uint8_t* payload, uint32_t length, uint32_t kind, SEI_INFO* info);
