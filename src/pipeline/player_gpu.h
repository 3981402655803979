// Which ports decode on the GPU.
#pragma once

#include <cstdint>

#include "korvalen_types.h"

struct Pipeline;

// True when the port's next decoder should be a GPU one: the switch was on
// when the port was made, the device decodes the codec, the port has a
// window, it has not fallen back to software, and a session is free.
bool Player_WantGpu(const Pipeline* rec, uint32_t codecType);
// The process-wide switch (Korvalen_AbleGpuDecode): 1 on when the device
// decodes H.264 or H.265, 0 off. Returns the switch's answer.
uint32_t Player_AbleGpuDecode(uint32_t enable);
uint32_t Player_AbleGpuDecodeEx(uint32_t enable, const KORVALEN_GPU_OPTIONS* options, uint32_t* deviceKind,
                                uint32_t* sessions);
// The switch as it stands, copied by each new port.
uint32_t Player_GpuDecodeSwitch();

void Player_GpuSessionOpened();
void Player_GpuSessionClosed();
uint32_t Player_GpuSessions();
