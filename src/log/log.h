// The log call every module uses: level, source file, line, printf format.
// The finished line goes to one sink: the caller's callback or the file writer.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "korvalen_types.h"

// Module identifier passed to every sink call.
constexpr uint32_t kLogModuleId = 358;
// Bytes for the formatted message and for the prefixed line.
constexpr size_t kLogLineMax = 1024;

void LOG_Write(uint32_t level, const char* file, uint32_t line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void LOG_WriteV(uint32_t level, const char* file, uint32_t line, const char* fmt, va_list args);

// Installs the sink (null removes it); returns the previous one.
KORVALEN_LOG_CB LOG_SetSink(KORVALEN_LOG_CB sink);
KORVALEN_LOG_CB LOG_GetSink();
// Installs sink only when none is installed; true when it was installed.
bool LOG_SetSinkIfNone(KORVALEN_LOG_CB sink);

#define KORVALEN_LOG(level, ...) LOG_Write((level), __FILE__, __LINE__, __VA_ARGS__)
