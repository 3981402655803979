// Which ports decode on the GPU.
#pragma once

#include <cstdint>

struct PortRecord;

// True when the port's next decoder should be a GPU one: the switch was on
// when the port was made, the device decodes the codec, the port has a
// window, it has not fallen back to software, and a session is free.
bool Player_WantGpu(const PortRecord* rec, uint32_t codecType);
void Player_GpuSessionOpened();
void Player_GpuSessionClosed();
uint32_t Player_GpuSessions();
