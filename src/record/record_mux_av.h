// libavformat side of the record writers, shared by the writer and by the
// in-place finish of an MP4 file whose index could not be written.
#pragma once

#include <cstdint>

#include "record/record_mux.h"

struct AVFormatContext;
struct AVStream;

// Adds the video (and MP2) streams of a record file. 0, 7 codec the
// container cannot carry, 1 no memory.
uint32_t MUX_AddAvStreams(AVFormatContext* fmt, int32_t container, const REC_MUX_SETUP* s, AVStream** video,
                          AVStream** audio);

// An MP4 file that ran out of space before its index: drops as many of its
// last samples as it takes for the index to fit in the space the file holds,
// and writes the index there, from the journal. 0, or 271 when it cannot be
// done (the file and journal are left for recovery).
uint32_t REC_FinishMp4InPlace(const char* path, const char* journalPath);

// Cuts an MPEG-TS file back to its last whole 188-byte packet: a write that
// failed or a writer that died leaves a packet cut short, and the file
// reader finds its end by stepping back 188 bytes at a time.
uint32_t REC_TrimTs(const char* path);
