// Record file naming and division: which container and naming scheme a
// record type means, the names of a finished file and of the next one, the
// division check, and making a name unique on disk.
#pragma once

#include <cstdint>
#include <ctime>

constexpr uint32_t kRecordNameMax = 256;
constexpr uint64_t kRecordSizeDefault = 0xFA000000ull;    // 4000 MiB
constexpr uint64_t kRecordAviSizeMax = 0x7D000000ull;     // 2000 MiB
constexpr uint32_t kRecordCallerEpochShift = 0x83AA7E80u; // 1900 -> 1970
constexpr uint32_t kRecordTenYears = 315360000u;

enum RecordContainer : int32_t {
    REC_CONTAINER_NONE = -1,
    REC_CONTAINER_MP4 = 0,
    REC_CONTAINER_TS = 1,
    REC_CONTAINER_AVI = 2,
};

enum RecordScheme : uint32_t {
    REC_SCHEME_NONE = 0,
    REC_SCHEME_PLAIN = 1,
    REC_SCHEME_END_TIME = 2,
    REC_SCHEME_CALLER_TIME = 3,
};

int32_t REC_Container(uint32_t recordType);
uint32_t REC_Scheme(uint32_t recordType);
// ".mp4", ".ts", ".avi"; ".temp" for 21; null for other types.
const char* REC_Extension(uint32_t recordType);
// Types whose finished and temporary names are made unique (8, 9, 18).
bool REC_MakesUnique(uint32_t recordType);

// Calendar time of a caller's time stamp: seconds since 1970, or since 1900
// when it lies more than ten years beyond now.
std::tm REC_CallerTime(uint32_t t, time_t now);

// What the naming of a closing file needs.
struct REC_NAMING {
    uint32_t recordType;
    char* baseName;       // kRecordNameMax bytes, rewritten for the next file
    const char* tempName; // the file being closed
    uint32_t* partCounter;
    uint32_t callerStart; // both non-zero: the caller-time scheme uses them
    uint32_t callerEnd;
    time_t now;
    uint32_t port; // for the log lines
};

// Final name of the closing file (finalName: kRecordNameMax bytes) and the
// base name of the next one. Naming problems log a warning and go on.
void REC_NameClosedFile(const REC_NAMING* n, char* finalName);

// "%s.temp" of the base name.
void REC_TempName(const char* baseName, char* tempName);

// Division check: 1 when a new file must be started before the next frame.
// size is only looked at when a size limit is set.
uint32_t REC_NeedDivide(uint32_t recordType, uint64_t sizeLimit, uint32_t timeLimit, uint64_t size, time_t now,
                        time_t fileStart);

// Makes the name in the buffer unique on disk: 0 when the (possibly
// rewritten) name is free, 2 on failure.
uint32_t Player_IsFileExist(uint32_t recordType, char* name, uint32_t capacity);
