// Picture size (and, for H.264, frame rate) from the sequence parameter set
// of an Annex B access unit.
#pragma once

#include <cstdint>

// Scans the parameter sets in front of the first slice; true with the
// displayed (cropped) size when an SPS there parses.
bool CODE_ProbeH264Size(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height);
// The same, with the frame rate the VUI timing gives (0 when absent).
bool CODE_ProbeH264Sps(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height, uint32_t* fps);
bool CODE_ProbeH265Size(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height);
// Frame rate from the VPS timing of an H.265 access unit, 0 when absent.
uint32_t CODE_ProbeH265Rate(const uint8_t* data, uint32_t length);
