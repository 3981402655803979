// Rendering of a port: the display, the two picture queues and the render
// thread that paces pictures into the window.
#pragma once

#include <cstdint>

struct Pipeline;

// Creates the display for the window, the picture queues, and starts the
// render thread. 0 or the error of the step that failed (logged).
uint32_t Render_Start(Pipeline* rec, uint64_t window);
// Stops the render thread and releases the display and the queues.
void Render_Stop(Pipeline* rec);
