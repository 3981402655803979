// The library's own rolling log pair "Player_SDK00.log" / "Player_SDK01.log".
#pragma once

#include <cstdint>
#include <string>

// Opens the logger (first call only) with level 2, the default folder and
// 1024 KB, and installs the file writer as sink unless one is installed.
// Returns 0, 1 on failure, 3 when the context cannot be allocated.
uint32_t LOGFILE_Open();
// Closes the file and frees the context (last call only).
void LOGFILE_Close();
bool LOGFILE_IsOpen();

// Level, folder (null or empty = default) and size in KB. Returns 0 or an
// error code; failures are also written to standard error.
uint32_t LOGFILE_SetLog(uint32_t level, const char* folder, uint32_t sizeKb);

// The file writer sink.
void LOGFILE_Sink(uint32_t level, uint32_t module, uint32_t reserved, const char* source, uint32_t line,
                  const char* text);
// False when the file writer would drop a line of this level.
bool LOGFILE_WouldWrite(uint32_t level);

// The default folder: documents folder cut after its last separator, plus
// "PlayerFile/".
std::string LOGFILE_DefaultFolder();

struct LogFileSettings {
    uint32_t threshold;
    uint32_t maxSize;
    uint32_t curSize;
    std::string curPath;
    std::string prevPath;
};
// Snapshot of the settings, for diagnostics and tests; false when closed.
bool LOGFILE_GetSettings(LogFileSettings* out);
