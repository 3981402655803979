// Writing the camera family's SEI units into H.264 / H.265 Annex-B streams:
// analysis rules and targets, fisheye parameters, a sound-source position,
// coding flags, a watermark and debug data. Shared by korvalen-sei-inject and
// the tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using SeiBytes = std::vector<uint8_t>;

constexpr uint32_t SEIW_H264 = 3;
constexpr uint32_t SEIW_H265 = 8;

struct SEIW_TARGET {
    uint32_t id = 1;
    uint32_t cls = 0;               // 0 tracked class
    uint16_t box[4] = {0, 0, 0, 0}; // left, top, right, bottom in ten-thousandths
    uint32_t color = 5;
    uint32_t track = 0;
};

struct SEIW_RULE {
    uint32_t kind = 1; // 0 polyline, 1 polygon
    uint32_t labelType = 0;
    std::vector<std::pair<uint16_t, uint16_t>> points; // x, y in ten-thousandths (at most 16 are written)
    uint32_t pointCount = 0xFFFFFFFF;                  // written count; default: points.size()
    uint32_t lineColor = 6;
    uint32_t fillColor = 6;
    uint32_t lineValue = 100;
    uint32_t fillValue = 0;
};

// Faults to write on purpose.
struct SEIW_NAL_OPTIONS {
    int32_t sizeDelta = 0;  // added to the size field
    bool noStopBit = false; // leave out the 0x80 behind the payload
    uint32_t cutTail = 0;   // bytes cut off the end of the unit
};

// IVA record bodies (header and entries). word2 0 makes a record the reader ignores.
SeiBytes SeiWriter_IvaResults(const std::vector<SEIW_TARGET>& targets, uint32_t word2 = 1);
SeiBytes SeiWriter_IvaRules(const std::vector<SEIW_RULE>& rules, uint32_t word2 = 1);
// A user-data payload: subtype byte and body.
SeiBytes SeiWriter_UserData(uint8_t subtype, const SeiBytes& body);
SeiBytes SeiWriter_Be16(uint16_t v);

// Inserts emulation-prevention bytes.
SeiBytes SeiWriter_Escape(const SeiBytes& raw);

// One SEI NAL unit with a four-byte start code, holding one message of the
// given payload type; the payload is escaped and its size field counts the
// escaped bytes.
SeiBytes SeiWriter_Nal(uint32_t codec, uint8_t payloadType, const SeiBytes& payload,
                       const SEIW_NAL_OPTIONS& options = {});

// Access units of an Annex-B stream, each with its start codes.
std::vector<SeiBytes> SeiWriter_SplitAccessUnits(uint32_t codec, const SeiBytes& stream);
// The access unit with units inserted before its first slice.
SeiBytes SeiWriter_InsertBeforeSlice(uint32_t codec, const SeiBytes& accessUnit, const SeiBytes& units);

// Text description, one statement a line ('#' starts a comment). FRAMES is
// "*" (every frame), "N" or "A-B" (0-based access-unit numbers):
//   FRAMES target id=1 class=0 color=5 track=1 box=L,T,R,B [move=DX,DY]
//   FRAMES rule polygon|line label=4 color=6 fill=6 line=100 fillv=0 points=X,Y;X,Y;...
//   FRAMES fisheye A B C
//   FRAMES voice V
//   FRAMES ucode BYTE
//   FRAMES watermark TEXT
// move shifts the box by DX,DY per frame after the range's first frame.
struct SEIW_STATEMENT {
    uint32_t first = 0;
    uint32_t last = 0xFFFFFFFF;
    std::string kind; // target, rule, fisheye, voice, ucode, watermark
    SEIW_TARGET target;
    int32_t move[2] = {0, 0};
    SEIW_RULE rule;
    uint16_t values[3] = {0, 0, 0};
    std::string text;
};

// Parses a description; false with *error set on a bad line.
bool SeiWriter_ParseDescription(const std::string& text, std::vector<SEIW_STATEMENT>* out, std::string* error);
// The SEI units for access unit n (rules, then targets, then the others).
SeiBytes SeiWriter_UnitsForFrame(uint32_t codec, const std::vector<SEIW_STATEMENT>& statements, uint32_t n);
// The whole stream with every access unit's SEI inserted.
SeiBytes SeiWriter_Inject(uint32_t codec, const SeiBytes& stream, const std::vector<SEIW_STATEMENT>& statements);
