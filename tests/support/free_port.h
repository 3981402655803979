// A loopback port nobody holds at the moment of asking, for tests and
// benchmarks that bind servers and senders of their own.
#pragma once

#include <cstdint>

// type: SOCK_DGRAM or SOCK_STREAM.
uint16_t FreeLoopbackPort(int type);
