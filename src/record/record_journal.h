// The journal beside a record file: what the file is (naming facts, the
// streams and their parameter sets) and, for MP4, where each sample went.
// A file whose writer died (killed, or out of disk space before the MP4
// index could be written) is rebuilt from it into a playable file with the
// name its writer would have given it.
#pragma once

#include <cstdint>
#include <cstdio>

#include "record/record_mux.h"
#include "record/record_naming.h"

constexpr char kJournalSuffix[] = ".journal";
constexpr uint32_t REC_ENTRY_KEY = 1;
constexpr uint32_t REC_ENTRY_AUDIO = 2;

struct REC_JOURNAL_HEADER {
    char magic[4];     // "KRJ1"
    uint32_t pid;      // the writer; its file is left alone while it lives
    uint64_t pidStart; // the writer's start time, so a reused process id is told apart
    uint32_t recordType;
    int32_t container;
    uint32_t partCounter;
    uint32_t callerStart;
    uint32_t callerEnd;
    char baseName[kRecordNameMax];
    uint32_t started; // the streams below are set
    uint32_t videoCodec;
    uint32_t width;
    uint32_t height;
    uint32_t frameRate;
    uint32_t audio;
    uint32_t paramLen;
    uint8_t params[kRecordParamSetsMax];
};

struct REC_JOURNAL_ENTRY {
    uint64_t offset;
    uint32_t size;
    uint32_t flags; // REC_ENTRY_*
    uint64_t pts;   // 90 kHz
};

// Start time of a process (clock ticks since boot), 0 when unknown.
uint64_t REC_ProcessStart(uint32_t pid);

// Journal file name of a record file (kRecordNameMax + 16 bytes).
void REC_JournalName(const char* path, char* out, size_t cap);
// Writes (or rewrites) the header at the start. 0 or 264.
uint32_t REC_JournalWriteHeader(std::FILE* fp, const REC_JOURNAL_HEADER* h);
// Appends one entry and hands it to the system. 0 or 264.
uint32_t REC_JournalAppend(std::FILE* fp, const REC_JOURNAL_ENTRY* e);

// Rebuilds one left-over temporary file into its final name (finalName gets
// kRecordNameMax bytes). A file whose writer still runs is left alone
// unless force is set. 0; 262 no journal or file; 537 writer alive; 271
// journal unreadable; 264 write failure.
uint32_t REC_RecoverFile(const char* tempPath, bool force, char* finalName);
// Recovers every "*.temp" with a journal in a folder whose writer is gone.
// Returns how many files were recovered.
uint32_t REC_RecoverFolder(const char* dir);
