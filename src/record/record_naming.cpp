// Record file names: schemes per record type, the names given at division
// and at stop, and unique names on disk.
#include "record/record_naming.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "korvalen_types.h"
#include "log/log.h"

namespace {

// Copies at most kRecordNameMax - 1 bytes; longer names are cut.
void CopyName(char* dst, const char* src)
{
    std::snprintf(dst, kRecordNameMax, "%s", src);
}

void Stamp(const std::tm& t, char* out, size_t cap)
{
    std::snprintf(out, cap, "%04d%02d%02d%02d%02d%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
                  t.tm_sec);
}

std::tm LocalTime(time_t now)
{
    std::tm t{};
    localtime_r(&now, &t);
    return t;
}

// Base name of the next file in the time schemes: from its last "_" on,
// "_S" and the current time.
void RewriteBaseWithStart(const REC_NAMING* n)
{
    char* cut = std::strrchr(n->baseName, '_');
    if (!cut) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Player_CreateNewFile warm, not find file name", n->port);
        return;
    }
    char stamp[32];
    Stamp(LocalTime(n->now), stamp, sizeof stamp);
    const size_t keep = static_cast<size_t>(cut - n->baseName);
    std::snprintf(cut, kRecordNameMax - keep, "_S%s", stamp);
}

void EndTimeName(const REC_NAMING* n, const char* ext, char* finalName)
{
    char stamp[32];
    Stamp(LocalTime(n->now), stamp, sizeof stamp);
    std::snprintf(finalName, kRecordNameMax, "%s_E%s%s", n->baseName, stamp, ext);
}

bool FileExists(const char* name)
{
    struct stat st;
    return stat(name, &st) == 0;
}

} // namespace

int32_t REC_Container(uint32_t recordType)
{
    switch (recordType) {
    case 0:
    case 2:
    case 8:
    case 12:
        return REC_CONTAINER_MP4;
    case 1:
    case 3:
    case 9:
    case 13:
        return REC_CONTAINER_TS;
    case 14:
    case 15:
    case 18:
    case 20:
        return REC_CONTAINER_AVI;
    default:
        return REC_CONTAINER_NONE;
    }
}

uint32_t REC_Scheme(uint32_t recordType)
{
    switch (recordType) {
    case 0:
    case 1:
    case 14:
        return REC_SCHEME_PLAIN;
    case 2:
    case 3:
    case 15:
        return REC_SCHEME_END_TIME;
    case 8:
    case 12:
    case 9:
    case 13:
    case 18:
    case 20:
        return REC_SCHEME_CALLER_TIME;
    default:
        return REC_SCHEME_NONE;
    }
}

const char* REC_Extension(uint32_t recordType)
{
    if (recordType == 21) {
        return ".temp";
    }
    switch (REC_Container(recordType)) {
    case REC_CONTAINER_MP4:
        return ".mp4";
    case REC_CONTAINER_TS:
        return ".ts";
    case REC_CONTAINER_AVI:
        return ".avi";
    default:
        return nullptr;
    }
}

bool REC_MakesUnique(uint32_t recordType)
{
    return recordType == 8 || recordType == 9 || recordType == 18;
}

std::tm REC_CallerTime(uint32_t t, time_t now)
{
    int64_t secs = t;
    if (secs > static_cast<int64_t>(now) + kRecordTenYears) {
        secs -= kRecordCallerEpochShift;
    }
    return LocalTime(static_cast<time_t>(secs));
}

void REC_TempName(const char* baseName, char* tempName)
{
    std::snprintf(tempName, kRecordNameMax, "%s.temp", baseName);
}

void REC_NameClosedFile(const REC_NAMING* n, char* finalName)
{
    const char* ext = REC_Extension(n->recordType);
    switch (REC_Scheme(n->recordType)) {
    case REC_SCHEME_PLAIN: {
        std::snprintf(finalName, kRecordNameMax, "%s%s", n->baseName, ext);
        const uint32_t part = ++*n->partCounter;
        char suffix[32];
        char* at = std::strstr(n->baseName, "_part");
        if (at && REC_Container(n->recordType) == REC_CONTAINER_TS) {
            std::snprintf(suffix, sizeof suffix, "%%_part%u", part); // the percent sign stays in the name
        } else {
            std::snprintf(suffix, sizeof suffix, "_part%u", part);
        }
        if (!at) {
            at = n->baseName + std::strlen(n->baseName);
        }
        const size_t keep = static_cast<size_t>(at - n->baseName);
        std::snprintf(at, kRecordNameMax - keep, "%s", suffix);
        return;
    }
    case REC_SCHEME_END_TIME:
        EndTimeName(n, ext, finalName);
        RewriteBaseWithStart(n);
        return;
    case REC_SCHEME_CALLER_TIME:
        if (n->callerStart && n->callerEnd) {
            const char* cut = std::strrchr(n->tempName, '_');
            if (cut) {
                char s[32], e[32];
                Stamp(REC_CallerTime(n->callerStart, n->now), s, sizeof s);
                Stamp(REC_CallerTime(n->callerEnd, n->now), e, sizeof e);
                std::snprintf(finalName, kRecordNameMax, "%.*s_S%s_E%s%s", static_cast<int>(cut - n->tempName),
                              n->tempName, s, e, ext);
            } else {
                KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Player_CreateNewFile warm, file name invalid", n->port);
                std::snprintf(finalName, kRecordNameMax, "%s%s", n->baseName, ext);
            }
        } else {
            EndTimeName(n, ext, finalName);
        }
        RewriteBaseWithStart(n);
        return;
    default:
        CopyName(finalName, n->tempName);
        return;
    }
}

uint32_t REC_NeedDivide(uint32_t recordType, uint64_t sizeLimit, uint32_t timeLimit, uint64_t size, time_t now,
                        time_t fileStart)
{
    const int32_t c = REC_Container(recordType);
    if (c == REC_CONTAINER_AVI) {
        if (sizeLimit <= kRecordAviSizeMax + 1) {
            if (sizeLimit && size >= sizeLimit) {
                return 1;
            }
        } else if (size >= kRecordAviSizeMax) {
            return 1;
        }
    } else if (c != REC_CONTAINER_NONE && sizeLimit && size >= sizeLimit) {
        return 1;
    }
    if (timeLimit && now - fileStart > static_cast<time_t>(timeLimit)) {
        return 1;
    }
    return 0;
}

uint32_t Player_IsFileExist(uint32_t recordType, char* name, uint32_t capacity)
{
    if (!name) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_IsFileExist fail, invalid param, file path is NULL");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const size_t len = std::strlen(name);
    if (capacity < len + 4) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_IsFileExist fail, file path size not enough, file path: %s, size: %d",
                     name, static_cast<int>(capacity));
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const char* ext = nullptr;
    switch (recordType) {
    case 8:
    case 12:
    case 9:
    case 13:
    case 18:
    case 20:
    case 21:
        ext = REC_Extension(recordType);
        break;
    default:
        return KORVALEN_OK;
    }
    const size_t extLen = std::strlen(ext);
    for (uint32_t n = 0;; ++n) {
        if (!FileExists(name)) {
            return KORVALEN_OK;
        }
        char* paren = std::strchr(name, '(');
        char* at = paren;
        if (!at) {
            const size_t cur = std::strlen(name);
            if (cur < extLen || std::strcmp(name + cur - extLen, ext) != 0) {
                if (REC_Container(recordType) == REC_CONTAINER_MP4) {
                    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_IsFileExist fail, not mp4 file, file path: %s", name);
                } else {
                    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_IsFileExist fail, not ts file, file path: %s", name);
                }
                return KORVALEN_ERR_INVALID_PARAM;
            }
            at = name + cur - extLen;
        }
        char tail[32];
        const int tailLen = std::snprintf(tail, sizeof tail, "(%u)%s", n + 1, ext);
        const size_t keep = static_cast<size_t>(at - name);
        if (keep + static_cast<size_t>(tailLen) + 1 > capacity) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "Player_IsFileExist fail, file path size not enough, file path: %s, size: %d", name,
                         static_cast<int>(capacity));
            return KORVALEN_ERR_INVALID_PARAM;
        }
        std::memcpy(at, tail, static_cast<size_t>(tailLen) + 1);
    }
}
