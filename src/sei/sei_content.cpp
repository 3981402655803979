// The contents of SEI messages: each kind is copied into its own buffer of
// the port's record, unescaped, and read from there.
#include <cstring>
#include <initializer_list>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "sei/sei_parse.h"

namespace {

constexpr uint32_t kGrowMargin = 1000;
constexpr uint32_t kWatermarkField = 16;

uint16_t LoadBe16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// Copies the payload into the kind's buffer, growing it to the payload length
// plus a margin when the length reaches its capacity. The new block is taken
// before the old one is given back, so a failure keeps what was there.
uint32_t CopyIn(SEI_BUFFER& b, const uint8_t* payload, uint32_t length)
{
    if (length >= b.capacity) {
        auto* grown = static_cast<uint8_t*>(QMX_HeapMalloc(static_cast<size_t>(length) + kGrowMargin));
        if (!grown) {
            return KORVALEN_ERR_NO_MEMORY;
        }
        QMX_HeapFree(b.data);
        b.data = grown;
        b.capacity = length + kGrowMargin;
    }
    std::memcpy(b.data, payload, length);
    b.length = length;
    return KORVALEN_OK;
}

uint32_t CopyUnescaped(SEI_BUFFER& b, const uint8_t* payload, uint32_t length)
{
    uint32_t err = CopyIn(b, payload, length);
    if (err == KORVALEN_OK) {
        b.length = Sei_Unescape(b.data, b.length);
    }
    return err;
}

} // namespace

uint32_t Sei_Unescape(uint8_t* data, uint32_t length)
{
    uint32_t out = 0;
    uint32_t zeros = 0;
    for (uint32_t i = 0; i < length; ++i) {
        const uint8_t b = data[i];
        if (zeros >= 2 && b == 3) {
            zeros = 0;
            continue;
        }
        zeros = b == 0 ? zeros + 1 : 0;
        data[out++] = b;
    }
    return out;
}

uint32_t Sei_UcodeParse(const uint8_t* payload, uint32_t length, SEI_INFO* info)
{
    uint32_t err = CopyUnescaped(info->ucode, payload, length);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (info->ucode.length < 1) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint8_t b = info->ucode.data[0];
    uint8_t f = info->codingFlags & static_cast<uint8_t>(~0xCEu); // bits 0, 4 and 5 are kept
    f |= static_cast<uint8_t>(((b >> 5) & 0x3) << 1);
    f |= static_cast<uint8_t>(((b >> 4) & 0x1) << 3);
    f |= static_cast<uint8_t>((b & 0x3) << 6);
    info->codingFlags = f;
    info->flags |= SEI_FLAG_UCODE;
    return KORVALEN_OK;
}

uint32_t Sei_DbugParse(const uint8_t* payload, uint32_t length, SEI_INFO* info)
{
    // Debug data are kept as they came, escapes and all.
    uint32_t err = CopyIn(info->debug, payload, length);
    if (err == KORVALEN_OK) {
        info->flags |= SEI_FLAG_DEBUG;
    }
    return err;
}

uint32_t Sei_WatermarkParse(const uint8_t* payload, uint32_t length, SEI_INFO* info)
{
    uint32_t err = CopyUnescaped(info->watermark, payload, length);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (info->watermark.length < 2 * kWatermarkField) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::memcpy(info->watermarkFields[0], info->watermark.data, kWatermarkField);
    std::memcpy(info->watermarkFields[1], info->watermark.data + kWatermarkField, kWatermarkField);
    info->flags |= SEI_FLAG_WATERMARK;
    return KORVALEN_OK;
}

uint32_t Sei_FisheyeParse(const uint8_t* payload, uint32_t length, SEI_INFO* info)
{
    uint32_t err = CopyUnescaped(info->fisheye, payload, length);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (info->fisheye.length < 6) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    for (int i = 0; i < 3; ++i) {
        info->fisheyeParams[i] = LoadBe16(info->fisheye.data + 2 * i);
    }
    info->flags |= SEI_FLAG_FISHEYE;
    return KORVALEN_OK;
}

uint32_t Sei_VoiceLocation(const uint8_t* payload, uint32_t length, SEI_INFO* info)
{
    uint32_t err = CopyUnescaped(info->voice, payload, length);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (info->voice.length < 2) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    info->voicePosition = LoadBe16(info->voice.data);
    info->flags |= SEI_FLAG_VOICE;
    return KORVALEN_OK;
}

uint32_t Sei_IvaV2Parse(const uint8_t* payload, uint32_t length, uint32_t kind, SEI_INFO* info)
{
    if (length == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Sei_IvaV2Parse fail, SEI data len is: %d", length);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint32_t err = CopyUnescaped(info->iva, payload, length);
    if (err != KORVALEN_OK) {
        return err;
    }
    info->ivaVersion = SEI_IVA_VERSION;
    info->flags |= kind;
    // The record's kind follows the subtype of this message, so results and
    // rules may come in either order within one access unit.
    const uint32_t record = kind == SEI_FLAG_IVA_RESULT ? IVA_KIND_RESULT : IVA_KIND_RULE;
    return info->ivaRecord ? info->ivaRecord(info->ivaCtx, record, info->iva.data, info->iva.length)
                           : KORVALEN_ERR_IVA_DRAW;
}
