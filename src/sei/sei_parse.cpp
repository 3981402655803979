// Finding SEI units in an access unit and checking each message's framing.
#include "sei/sei_parse.h"

#include <initializer_list>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kLogEvery = 100;
constexpr uint8_t kStopBit = 0x80;

// The names each codec's messages log under.
struct CodecNames {
    const char* parse; // "Sei_H264Parse"
    const char* under; // "Sei_H264_Parse"
    uint8_t ucode;
    uint8_t fisheye;
    bool h264;
};

const CodecNames kH264{"Sei_H264Parse", "Sei_H264_Parse", SEI_H264_TYPE_UCODE, SEI_H264_TYPE_FISHEYE, true};
const CodecNames kH265{"Sei_H265Parse", "Sei_H265_Parse", SEI_H265_TYPE_UCODE, SEI_H265_TYPE_FISHEYE, false};

// Counts a failure; true when this one is logged (once per hundred).
bool CountError(SEI_INFO* info)
{
    ++info->errorCount;
    return info->errorCount % kLogEvery == 1;
}

// A failing content parser: counted, and logged once per hundred.
uint32_t ContentFailed(SEI_INFO* info, const CodecNames& n, const char* parser, uint32_t err)
{
    if (CountError(info)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, %s fail, error(0x%x), count(%d)", n.parse, parser, err,
                     info->errorCount);
    }
    return err;
}

// Something this system does not know: counted; 2 on the logged count, else
// the message is skipped quietly.
uint32_t Unknown(SEI_INFO* info, const CodecNames& n, const char* what, uint32_t value)
{
    if (CountError(info)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, unknown %s value type(0x%x), count(%d)", n.under, what, value,
                     info->errorCount);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return KORVALEN_OK;
}

uint32_t UserData(const uint8_t* payload, uint32_t size, SEI_INFO* info, const CodecNames& n)
{
    const uint8_t subtype = payload[0];
    uint32_t err;
    switch (subtype) {
    case SEI_SUBTYPE_VOICE:
        err = Sei_VoiceLocation(payload + 1, size - 1, info);
        if (err != KORVALEN_OK) {
            ++info->errorCount;
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, Sei_VoiceLocation fail, error(0x%x)", n.parse, err);
        }
        return err;
    case SEI_SUBTYPE_IVA_RESULT:
    case SEI_SUBTYPE_IVA_RULE:
        err = Sei_IvaV2Parse(payload + 1, size - 1,
                             subtype == SEI_SUBTYPE_IVA_RESULT ? SEI_FLAG_IVA_RESULT : SEI_FLAG_IVA_RULE, info);
        if (err != KORVALEN_OK) {
            ++info->errorCount;
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, Sei_IvaV2Parse fail, error(0x%x)", n.parse, err);
        }
        return err;
    default:
        return Unknown(info, n, "SEI_subtype", subtype);
    }
}

uint32_t ParseMessage(const uint8_t* buffer, uint32_t length, SEI_INFO* info, const CodecNames& n)
{
    if (!buffer || length == 0 || !info) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint8_t type = buffer[0];
    uint32_t size = 0, field = 0;
    uint32_t err = Sei_MathSeiLen(buffer + 1, length - 1, &size, &field);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, Sei_MathSeiLen fail, error(%d)", n.parse, err);
        return err;
    }
    const uint8_t* payload = buffer + 1 + field;
    const uint32_t after = 1 + field + size; // offset of the byte behind the payload
    if (type == SEI_TYPE_USER_DATA) {
        if (after >= length || buffer[after] != kStopBit) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, sei (len:%d) data not complete", n.under, size);
            return KORVALEN_ERR_INVALID_PARAM;
        }
        return UserData(payload, size, info, n);
    }
    if (type == n.ucode) {
        err = Sei_UcodeParse(payload, size, info);
        return err == KORVALEN_OK ? err : ContentFailed(info, n, "Sei_UcodeParse", err);
    }
    if (type == n.fisheye) {
        err = Sei_FisheyeParse(payload, size, info);
        return err == KORVALEN_OK ? err : ContentFailed(info, n, "Sei_FisheyeParse", err);
    }
    if (n.h264 && type == SEI_H264_TYPE_DEBUG) {
        err = Sei_DbugParse(payload, size, info);
        return err == KORVALEN_OK ? err : ContentFailed(info, n, "Sei_DbugParse", err);
    }
    if (n.h264 && type == SEI_H264_TYPE_WATERMARK) {
        err = Sei_WatermarkParse(payload, size, info);
        return err == KORVALEN_OK ? err : ContentFailed(info, n, "Sei_WatermarkParse", err);
    }
    return Unknown(info, n, "sei", type);
}

bool StartCode(const uint8_t* p)
{
    return p[0] == 0 && p[1] == 0 && p[2] == 1;
}

} // namespace

void Sei_ReleaseInfo(SEI_INFO* info)
{
    if (!info) {
        return;
    }
    for (SEI_BUFFER* b : {&info->ucode, &info->debug, &info->watermark, &info->fisheye, &info->voice, &info->iva}) {
        QMX_HeapFree(b->data);
        *b = SEI_BUFFER{};
    }
}

uint32_t Sei_MathSeiLen(const uint8_t* buffer, uint32_t available, uint32_t* size, uint32_t* fieldLength)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < available; ++i) {
        sum += buffer[i];
        if (buffer[i] != 0xFF) {
            // The payload must fit behind the field as well: never read past
            // the access unit.
            if (sum < 1 || sum >= available || sum > available - (i + 1)) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Sei_MathSeiLen fail, BufferLen(%d), SeiLen(%d)", available, sum);
                *size = 0;
                return KORVALEN_ERR_INVALID_PARAM;
            }
            *size = sum;
            *fieldLength = i + 1;
            return KORVALEN_OK;
        }
    }
    *size = 0;
    return KORVALEN_ERR_INVALID_PARAM;
}

uint32_t Sei_H264Parse(const uint8_t* buffer, uint32_t length, SEI_INFO* info)
{
    return ParseMessage(buffer, length, info, kH264);
}

uint32_t Sei_H265Parse(const uint8_t* buffer, uint32_t length, SEI_INFO* info)
{
    return ParseMessage(buffer, length, info, kH265);
}

uint32_t Sei_Parse(uint32_t streamType, const uint8_t* buffer, uint32_t length, SEI_INFO* info)
{
    if ((streamType != KORVALEN_CODEC_H264 && streamType != KORVALEN_CODEC_H265) || !buffer || length < 1 || !info) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Sei_Parse fail, invalid param, Payload(%d) Buffer(%d) BufferLen(%d) SeiInfo(%d)", streamType,
                     buffer ? 1 : 0, length, info ? 1 : 0);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    info->flags = 0;
    uint32_t result = KORVALEN_OK;
    const bool h264 = streamType == KORVALEN_CODEC_H264;
    uint32_t i = 0;
    while (i + 3 < length) {
        if (!StartCode(buffer + i)) {
            ++i;
            continue;
        }
        const uint8_t header = buffer[i + 3];
        if (h264) {
            const uint8_t type = header & 0x1F;
            if (type == 6) {
                if (i + 4 < length) {
                    result = Sei_H264Parse(buffer + i + 4, length - (i + 4), info);
                }
                ++i;
                continue;
            }
            if (type == 5 || type == 1) {
                break; // the first slice: the rest is picture data
            }
        } else {
            const uint8_t type = (header >> 1) & 0x3F;
            if (type == 39) {
                if (i + 5 < length) {
                    result = Sei_H265Parse(buffer + i + 5, length - (i + 5), info);
                }
                ++i;
                continue;
            }
            // Slices end the scan; type 0 does not, and is stepped over
            // like any other unit.
            if (type >= 1 && type <= 21) {
                break;
            }
        }
        i += 4;
    }
    return result;
}
