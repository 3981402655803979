// Report module: run messages queued by any thread and delivered to the
// caller's run-message callback by one thread every 40 ms.
#pragma once

#include <cstdint>

#include "korvalen_types.h"

// Report types and codes the library sends.
constexpr uint32_t kReportStreamEnd = 14;   // code 515: the stream's sender went away
constexpr uint32_t kReportPlaybackEnd = 15; // code 542: playback stream finished

uint32_t Report_Init();
void Report_Fini();

void Report_SetCallback(KORVALEN_RUN_MSG_CB cb);

// Queues one message; text may be null. 0, or 260 when the queue is full,
// or 257 when the module is not running.
uint32_t Report_Send(uint32_t port, uint32_t type, uint32_t code, uint32_t value, const char* text);
