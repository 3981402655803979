// Facts about codecs that every layer shares: which codec types are video or
// audio, the default RTP payload type of each, and the NAL unit kinds of
// H.264 and H.265. One place, so a new codec is added once.
#pragma once

#include <cstdint>

#include "korvalen_types.h"

inline constexpr bool Codec_IsVideo(uint32_t codec)
{
    return codec == KORVALEN_CODEC_H264 || codec == KORVALEN_CODEC_MJPEG || codec == KORVALEN_CODEC_H265;
}

inline constexpr bool Codec_IsAudio(uint32_t codec)
{
    return codec == KORVALEN_CODEC_G711U || codec == KORVALEN_CODEC_MP2 || codec == KORVALEN_CODEC_AAC ||
           codec == KORVALEN_CODEC_G711A || codec == KORVALEN_CODEC_PCM;
}

// H.264 and H.265: the codecs whose frames are NAL units behind start codes.
inline constexpr bool Codec_IsNal(uint32_t codec)
{
    return codec == KORVALEN_CODEC_H264 || codec == KORVALEN_CODEC_H265;
}

// Codec type of an RTP payload type by the default table (a port's own
// table, set by the caller, is looked up before this). Dynamic types default
// to H.264; the static types below 19 that are not listed are not ours.
inline constexpr uint32_t Codec_FromPayloadType(uint8_t payloadType)
{
    switch (payloadType) {
    case 0:
        return KORVALEN_CODEC_G711U;
    case 8:
        return KORVALEN_CODEC_G711A;
    case 26:
        return KORVALEN_CODEC_MJPEG;
    case 50:
        return KORVALEN_CODEC_IVA;
    case 104:
    case 120:
        return KORVALEN_CODEC_AAC;
    case 108:
        return KORVALEN_CODEC_H265;
    case 121:
        return KORVALEN_CODEC_PCM;
    default:
        return payloadType < 19 ? KORVALEN_CODEC_NONE : KORVALEN_CODEC_H264;
    }
}

// H.264 NAL unit types (the low five bits of the header byte).
enum : uint8_t {
    NAL_H264_SLICE = 1,
    NAL_H264_IDR = 5,
    NAL_H264_SEI = 6,
    NAL_H264_SPS = 7,
    NAL_H264_PPS = 8,
    NAL_H264_AUD = 9,
    NAL_H264_STAP_A = 24, // RTP aggregation packet
    NAL_H264_FU_A = 28,   // RTP fragmentation unit
};

// H.265 NAL unit types (bits 1..6 of the first header byte).
enum : uint8_t {
    NAL_H265_IDR_W_RADL = 19,
    NAL_H265_IDR_N_LP = 20,
    NAL_H265_CRA = 21,
    NAL_H265_VPS = 32,
    NAL_H265_SPS = 33,
    NAL_H265_PPS = 34,
    NAL_H265_AUD = 35,
    NAL_H265_SEI_PREFIX = 39,
    NAL_H265_SEI_SUFFIX = 40,
    NAL_H265_AP = 48, // RTP aggregation packet
    NAL_H265_FU = 49, // RTP fragmentation unit
};

inline constexpr uint8_t Nal_H264Type(uint8_t header)
{
    return header & 0x1F;
}

inline constexpr uint8_t Nal_H265Type(uint8_t header)
{
    return (header >> 1) & 0x3F;
}

// Key pictures: H.264 IDR, H.265 IRAP (types 16 to 23).
inline constexpr bool Nal_IsKey(uint32_t codec, uint8_t nalType)
{
    return codec == KORVALEN_CODEC_H265 ? (nalType >= 16 && nalType <= 23) : nalType == NAL_H264_IDR;
}
