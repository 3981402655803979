// The analysis (IVA) store of a port: the last rule record and the last
// result record a camera sent, kept until new ones arrive and painted over
// every picture.
#pragma once

#include <cstdint>

#include "sei/sei_parse.h"

constexpr uint32_t IVA_VERSION_OLD = 1;
constexpr uint32_t IVA_VERSION_CURRENT = SEI_IVA_VERSION;

constexpr uint32_t IVA_HEADER_SIZE = 12;
constexpr uint32_t IVA_RESULT_ENTRY = 36;
constexpr uint32_t IVA_RULE_ENTRY = 108;
constexpr uint32_t IVA_RULE_POINTS = 16;

// Older layout: up to 8 rules with their points as text.
constexpr uint32_t IVA_OLD_RULES = 8;
constexpr uint32_t IVA_OLD_POINT_TEXT = 56;

// One record: the header fields in host order and the entries as they came
// (little-endian fields; box and point pairs already in x-before-y order).
struct IVA_RECORD {
    uint32_t word1 = 0;
    uint32_t word2 = 0;
    uint16_t count = 0;
    uint16_t field4 = 0;
    uint8_t* entries = nullptr; // heap, grows only
    uint32_t capacity = 0;
    uint32_t length = 0; // bytes of entries
    uint32_t ready = 0;
};

struct IVA_OLD_RULE {
    uint32_t enable = 0; // 1 = draw
    uint32_t type = 0;   // 0 line, 1 polygon, 2 accepted, not drawn
    char points[IVA_OLD_POINT_TEXT + 1] = {};
    uint32_t pointCount = 0;
    uint32_t label = 0;
    uint32_t color = 0;
};

struct IVA_STORE {
    uint32_t version = 0; // IVA_VERSION_*, 0 until a record arrives
    IVA_RECORD results;   // kind 16
    IVA_RECORD rules;     // kind 17
    IVA_OLD_RULE oldRules[IVA_OLD_RULES];
    uint32_t oldRuleCount = 0;
};

// A target of a result record and a rule of a rule record, decoded.
struct IVA_TARGET {
    uint32_t id;
    uint32_t cls;    // 0 tracked class, else untracked
    uint16_t box[4]; // left, top, right, bottom in ten-thousandths
    uint32_t color;
    uint32_t track;
};

struct IVA_RULE {
    uint32_t kind;      // 0 polyline, 1 polygon
    uint32_t labelType; // 4 and 5 draw a label
    uint16_t points[IVA_RULE_POINTS][2];
    uint32_t pointCount;
    uint32_t lineColor;
    uint32_t fillColor;
    uint32_t lineValue;
    uint32_t fillValue;
};

// Checks and stores one record of kind 16 (results) or 17 (rules). 0 also
// for a record that is ignored or has the wrong length (logged, ready flag
// left unset); 1025 for a null store or data; 3 without memory.
uint32_t IvaV2Parse(uint32_t kind, IVA_STORE* store, const uint8_t* data, uint32_t length);
// The SEI parser's record hook: ctx is the IVA_STORE.
uint32_t IVA_StoreRecord(void* ctx, uint32_t kind, const uint8_t* data, uint32_t length);
// Points the SEI record's analysis hook at a store.
void IVA_AttachStore(SEI_INFO* sei, IVA_STORE* store);

// Makes dst a copy of src, growing dst's buffers as needed. 0 or 3.
uint32_t IVA_CopyStore(IVA_STORE* dst, const IVA_STORE* src);
// Forgets the records (buffers kept).
void IVA_ClearStore(IVA_STORE* store);
void IVA_ReleaseStore(IVA_STORE* store);

// Entry i of a record; the caller checks i < count and the record length.
IVA_TARGET IVA_GetTarget(const IVA_RECORD& results, uint32_t i);
IVA_RULE IVA_GetRule(const IVA_RECORD& rules, uint32_t i);
