// G.711 µ-law and A-law coder (ITU-T G.711 segment tables), 16-bit PCM.
#pragma once

#include <cstdint>

enum class G711Law { MuLaw, ALaw };

uint8_t G711_Encode(G711Law law, int16_t sample);
int16_t G711_Decode(G711Law law, uint8_t code);

// Whole blocks: count samples in, count bytes out (and back).
void G711_EncodeBlock(G711Law law, const int16_t* in, uint32_t count, uint8_t* out);
void G711_DecodeBlock(G711Law law, const uint8_t* in, uint32_t count, int16_t* out);
