#include "iva/iva_store.h"

#include <cstring>
#include <initializer_list>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

uint32_t LoadBe32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

uint16_t LoadBe16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t LoadLe32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[1]) << 8 |
           p[0];
}

uint16_t LoadLe16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[1] << 8 | p[0]);
}

// Exchanges two neighbouring 16-bit values in place.
void SwapPair(uint8_t* p)
{
    uint8_t t[2] = {p[0], p[1]};
    p[0] = p[2];
    p[1] = p[3];
    p[2] = t[0];
    p[3] = t[1];
}

uint32_t Reserve(IVA_RECORD& r, uint32_t length)
{
    if (length <= r.capacity) {
        return KORVALEN_OK;
    }
    auto* grown = static_cast<uint8_t*>(QMX_HeapMalloc(length));
    if (!grown) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    QMX_HeapFree(r.entries);
    r.entries = grown;
    r.capacity = length;
    return KORVALEN_OK;
}

uint32_t DataMallocAndCopy(IVA_RECORD& r, const uint8_t* data, uint32_t length)
{
    if (Reserve(r, length) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DataMallocAndCopy: malloc fail");
        return KORVALEN_ERR_NO_MEMORY;
    }
    if (length) {
        std::memcpy(r.entries, data, length);
    }
    r.length = length;
    return KORVALEN_OK;
}

uint32_t CopyRecord(IVA_RECORD& dst, const IVA_RECORD& src)
{
    if (Reserve(dst, src.length) != KORVALEN_OK) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    uint8_t* entries = dst.entries;
    uint32_t capacity = dst.capacity;
    dst = src;
    dst.entries = entries;
    dst.capacity = capacity;
    if (src.length) {
        std::memcpy(dst.entries, src.entries, src.length);
    }
    return KORVALEN_OK;
}

} // namespace

uint32_t IvaV2Parse(uint32_t kind, IVA_STORE* store, const uint8_t* data, uint32_t length)
{
    if (!store || !data) {
        return KORVALEN_ERR_IVA_DRAW;
    }
    const bool results = kind == IVA_KIND_RESULT;
    if (!results && kind != IVA_KIND_RULE) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint32_t entrySize = results ? IVA_RESULT_ENTRY : IVA_RULE_ENTRY;
    const uint16_t count = length >= IVA_HEADER_SIZE ? LoadBe16(data + 8) : 0;
    if (length < IVA_HEADER_SIZE || length != count * entrySize + IVA_HEADER_SIZE) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     results ? "IvaV2Parse: ulDataLen is valid, ulDataLen is (%d)"
                             : "IvaV2Parse: ulDataLen is invalid, ulDataLen is (%d)",
                     length);
        return KORVALEN_OK;
    }
    const uint32_t word2 = LoadBe32(data + 4);
    if (word2 == 0) {
        return KORVALEN_OK; // the camera's way of saying "nothing new"
    }
    IVA_RECORD& r = results ? store->results : store->rules;
    uint32_t err = DataMallocAndCopy(r, data + IVA_HEADER_SIZE, length - IVA_HEADER_SIZE);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "IvaV2Parse: Data malloc and copy fail, error(%d)", err);
        return err;
    }
    r.word1 = LoadBe32(data);
    r.word2 = word2;
    r.count = count;
    r.field4 = LoadBe16(data + 10);
    // Boxes come top, left, bottom, right and points y, x: store x first.
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t* e = r.entries + i * entrySize;
        if (results) {
            SwapPair(e + 8);
            SwapPair(e + 12);
        } else {
            for (uint32_t p = 0; p < IVA_RULE_POINTS; ++p) {
                SwapPair(e + 16 + 4 * p);
            }
        }
    }
    r.ready = 1;
    store->version = IVA_VERSION_CURRENT;
    return KORVALEN_OK;
}

uint32_t IVA_CopyStore(IVA_STORE* dst, const IVA_STORE* src)
{
    if (CopyRecord(dst->results, src->results) != KORVALEN_OK || CopyRecord(dst->rules, src->rules) != KORVALEN_OK) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    dst->version = src->version;
    std::memcpy(dst->oldRules, src->oldRules, sizeof dst->oldRules);
    dst->oldRuleCount = src->oldRuleCount;
    return KORVALEN_OK;
}

void IVA_ClearStore(IVA_STORE* store)
{
    store->version = 0;
    for (IVA_RECORD* r : {&store->results, &store->rules}) {
        r->ready = 0;
        r->length = 0;
        r->count = 0;
    }
    store->oldRuleCount = 0;
}

void IVA_ReleaseStore(IVA_STORE* store)
{
    if (!store) {
        return;
    }
    QMX_HeapFree(store->results.entries);
    QMX_HeapFree(store->rules.entries);
    store->results = IVA_RECORD{};
    store->rules = IVA_RECORD{};
    IVA_ClearStore(store);
}

IVA_TARGET IVA_GetTarget(const IVA_RECORD& results, uint32_t i)
{
    const uint8_t* e = results.entries + i * IVA_RESULT_ENTRY;
    IVA_TARGET t{};
    t.id = LoadLe32(e);
    t.cls = LoadLe32(e + 4);
    for (int k = 0; k < 4; ++k) {
        t.box[k] = LoadLe16(e + 8 + 2 * k);
    }
    t.color = LoadLe32(e + 16);
    t.track = LoadLe32(e + 24);
    return t;
}

IVA_RULE IVA_GetRule(const IVA_RECORD& rules, uint32_t i)
{
    const uint8_t* e = rules.entries + i * IVA_RULE_ENTRY;
    IVA_RULE r{};
    r.kind = LoadLe32(e + 8);
    r.labelType = LoadLe32(e + 12);
    for (uint32_t p = 0; p < IVA_RULE_POINTS; ++p) {
        r.points[p][0] = LoadLe16(e + 16 + 4 * p);
        r.points[p][1] = LoadLe16(e + 18 + 4 * p);
    }
    r.pointCount = LoadLe32(e + 80);
    r.lineColor = LoadLe32(e + 84);
    r.fillColor = LoadLe32(e + 88);
    r.lineValue = LoadLe32(e + 92);
    r.fillValue = LoadLe32(e + 96);
    return r;
}

uint32_t IVA_StoreRecord(void* ctx, uint32_t kind, const uint8_t* data, uint32_t length)
{
    return IvaV2Parse(kind, static_cast<IVA_STORE*>(ctx), data, length);
}

void IVA_AttachStore(SEI_INFO* sei, IVA_STORE* store)
{
    sei->ivaRecord = &IVA_StoreRecord;
    sei->ivaCtx = store;
}
