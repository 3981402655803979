// A port's source, opened and closed the same way for every kind: the
// pipeline's sink is made, the source opened, the decode side started, then
// the source's own delivery; closing runs the same steps backwards.
#pragma once

#include <cstdint>

#include "port/port.h"

// 0, 7 when the port already plays a source, or the error of a step.
uint32_t Port_OpenSource(PortRecord* rec, const SOURCE_OPS* ops, const void* params);
// Stops recording, sound and rendering, then the source; a port without a
// source is left as it is.
void Port_CloseSource(PortRecord* rec);
// The source's state when the port plays a source of these operations,
// else null.
void* Port_SourceState(PortRecord* rec, const SOURCE_OPS* ops);
