// Portable file access over buffered C streams: C-library failures become
// the library's error codes and log lines. 64-bit sizes and offsets.
#pragma once

#include <cstdint>
#include <cstdio>

// Codes of the file layer that the public table leaves unnamed.
constexpr uint32_t kFileErrGeneral = 1;
constexpr uint32_t kFileErrAccess = 12;   // access denied
constexpr uint32_t kFileErrNotFound = 13; // no such file
constexpr uint32_t kFileErrUnsupported = 7;

// Mode "rb" or "wb" only. Opening for writing creates missing folders.
// Returns the stream, or null with *error set.
FILE* QMX_FileOpen(const char* name, const char* mode, uint32_t* error);
// Reads up to *length bytes; *length becomes the count read. 0, 2 for bad
// arguments, 263 when nothing was read.
uint32_t QMX_FileRead(FILE* file, void* buffer, uint32_t* length);
// Writes the whole block: 0, or 264 when the disk took less.
uint32_t QMX_FileWrite(FILE* file, const void* buffer, uint32_t length);
// Makes every missing folder on the way to the file named by path.
uint32_t QMX_CreateDir(const char* path);

// Positioning with 64-bit offsets: 0, or 265 on failure.
uint32_t QMX_FileSeek(FILE* file, int64_t offset, int whence);
int64_t QMX_FileTell(FILE* file);
void QMX_FileClose(FILE* file);

// Log lines of the file layer carry this source name.
#define FILE_LOG(level, ...) LOG_Write((level), "module_file", __LINE__, __VA_ARGS__)
