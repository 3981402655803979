// Picture size from the sequence parameter set of an Annex B access unit.
#pragma once

#include <cstdint>

// Scans the parameter sets in front of the first slice; true with the
// displayed (cropped) size when an SPS there parses.
bool CODE_ProbeH264Size(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height);
bool CODE_ProbeH265Size(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height);
