// Thin platform layer: time, threads, paths and process facts.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

// Monotonic milliseconds; wraps like a 32-bit tick counter.
uint32_t PLAT_TickMs();
void PLAT_SleepMs(uint32_t ms);

// Names the calling thread (at most 15 characters are kept).
void PLAT_SetThreadName(const char* name);

int32_t PLAT_ProcessId();
uint64_t PLAT_ThreadId();

// The user's documents folder: $XDG_DOCUMENTS_DIR, else $HOME/Documents.
// Empty when neither can be found.
std::string PLAT_DocumentsDir();

// Creates a folder and its missing parents; true when it exists afterwards.
bool PLAT_MakeDirs(const std::string& path);

// Process virtual size in bytes; 0 when it cannot be read.
uint64_t PLAT_VirtualSizeBytes();
