// The box tree of an MP4 file: the top-level walk over the file, and the
// readers of "moov" and its children, which work on an in-memory copy of
// "moov" so that no read can leave its box.
#include <cstring>

#include "demux/mp4/mp4_reader.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kBoxHeader = 8;
constexpr uint32_t kFail = 1;
constexpr uint32_t kUnknownBox = 0xFFFFFFFFu; // a child reader's "not mine"
constexpr uint32_t kVisualEntrySize = 78;     // visual sample entry fields after the box header

struct TypeText {
    char text[5];
    explicit TypeText(uint32_t type)
    {
        for (int i = 0; i < 4; ++i) {
            auto c = static_cast<char>(type >> (24 - 8 * i));
            text[i] = c >= 0x20 && c < 0x7F ? c : '?';
        }
        text[4] = '\0';
    }
};

uint16_t Load16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint64_t Load64(const uint8_t* p)
{
    return static_cast<uint64_t>(MP4_Load32(p)) << 32 | MP4_Load32(p + 4);
}

// A box body shorter than its fields need.
uint32_t Short(uint64_t need)
{
    MP4_BOX_LOG(KORVALEN_LOG_ERROR, "fread data != need size[%d]", static_cast<int>(need));
    return kFail;
}

// Walks the children of a container body: each child must fit in what is
// left of its parent; unknown children are skipped with the reader's warning.
template <class F> uint32_t Walk(const uint8_t* p, uint64_t n, const char* who, F&& child)
{
    uint64_t at = 0;
    while (n - at >= kBoxHeader) {
        const uint32_t size = MP4_Load32(p + at);
        const uint32_t type = MP4_Load32(p + at + 4);
        if (size < kBoxHeader || size > n - at) {
            MP4_BOX_LOG(KORVALEN_LOG_ERROR, "%s fail, box size overflow", who);
            return kFail;
        }
        uint32_t err = child(type, p + at + kBoxHeader, size - kBoxHeader);
        if (err == kUnknownBox) {
            MP4_BOX_LOG(KORVALEN_LOG_WARN, "%s warm, unknow box type[%s]", who, TypeText(type).text);
        } else if (err != KORVALEN_OK) {
            return err;
        }
        at += size;
    }
    return KORVALEN_OK;
}

uint32_t ReadMvhd(Mp4Info* info, const uint8_t* p, uint32_t n)
{
    if (n < 4) {
        return Short(4);
    }
    const bool v1 = p[0] == 1;
    const uint32_t fixed = v1 ? 32 : 20; // version/flags, times, timescale, duration
    if (n < fixed) {
        return Short(fixed);
    }
    info->creationTime = v1 ? Load64(p + 4) : MP4_Load32(p + 4);
    info->timescale = MP4_Load32(p + (v1 ? 20 : 12));
    const uint64_t duration = v1 ? Load64(p + 24) : MP4_Load32(p + 16);
    info->duration = duration > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(duration);
    if (n >= fixed + 80) {
        MP4_BOX_LOG(KORVALEN_LOG_DEBUG, "mvhd rate(0x%x), volume(0x%x), next track id(%u)", MP4_Load32(p + fixed),
                    Load16(p + fixed + 4), MP4_Load32(p + fixed + 76));
    }
    return KORVALEN_OK;
}

uint32_t ReadTkhd(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    const uint32_t need = n >= 1 && p[0] == 1 ? 24 : 16;
    if (n < need) {
        return Short(need);
    }
    t->trackId = MP4_Load32(p + need - 4);
    return KORVALEN_OK;
}

uint32_t ReadMdhd(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    const bool v1 = n >= 1 && p[0] == 1;
    const uint32_t need = v1 ? 34 : 22;
    if (n < need) {
        return Short(need);
    }
    t->timescale = MP4_Load32(p + (v1 ? 20 : 12));
    t->duration = v1 ? Load64(p + 24) : MP4_Load32(p + 16);
    t->language = Load16(p + (v1 ? 32 : 20));
    return KORVALEN_OK;
}

uint32_t ReadHdlr(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    if (n < 12) {
        return Short(12);
    }
    t->handler = MP4_Load32(p + 8);
    return KORVALEN_OK;
}

// "avcC": the first SPS and the first PPS are kept.
uint32_t ReadAvcC(Mp4SampleEntry* e, const uint8_t* p, uint32_t n)
{
    if (n < 6) {
        return Short(6);
    }
    e->configurationVersion = p[0];
    e->profile = p[1];
    e->lengthSizeMinusOne = p[4] & 3;
    uint32_t at = 5;
    for (int set = 0; set < 2; ++set) {
        if (at >= n) {
            return Short(at + 1);
        }
        const uint32_t count = set == 0 ? (p[at] & 0x1F) : p[at];
        ++at;
        for (uint32_t i = 0; i < count; ++i) {
            if (n - at < 2 || n - at - 2 < Load16(p + at)) {
                return Short(at + 2);
            }
            const uint16_t len = Load16(p + at);
            if (i == 0) {
                (set == 0 ? e->sps : e->pps) = p + at + 2;
                (set == 0 ? e->spsLength : e->ppsLength) = len;
            }
            at += 2u + len;
        }
    }
    e->hasAvcC = true;
    return KORVALEN_OK;
}

uint32_t ReadVisualEntry(Mp4SampleEntry* e, const uint8_t* p, uint32_t n, bool avc)
{
    if (n < kVisualEntrySize) {
        return Short(kVisualEntrySize);
    }
    e->width = Load16(p + 24);
    e->height = Load16(p + 26);
    e->depth = Load16(p + 74);
    if (!avc) {
        return KORVALEN_OK; // "hev1": no parameter sets are kept
    }
    return Walk(p + kVisualEntrySize, n - kVisualEntrySize, "mp4_read_avc1_box",
                [&](uint32_t type, const uint8_t* c, uint32_t cn) -> uint32_t {
                    if (type == MP4_Fourcc("avcC")) {
                        return ReadAvcC(e, c, cn);
                    }
                    return KORVALEN_OK; // "btrt", "pasp", ... are of no use here
                });
}

uint32_t ReadStsd(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    if (n < 8) {
        return Short(8);
    }
    const uint32_t count = MP4_Load32(p + 4);
    uint64_t at = 8;
    for (uint32_t i = 0; i < count && n - at >= kBoxHeader; ++i) {
        const uint32_t size = MP4_Load32(p + at);
        const uint32_t type = MP4_Load32(p + at + 4);
        if (size < kBoxHeader || size > n - at) {
            MP4_BOX_LOG(KORVALEN_LOG_ERROR, "mp4_read_stbl_box fail, box size overflow");
            return kFail;
        }
        Mp4SampleEntry e;
        e.size = size;
        e.type = type;
        uint32_t err = KORVALEN_OK;
        if (type == MP4_Fourcc("avc1") || type == MP4_Fourcc("hev1")) {
            err = ReadVisualEntry(&e, p + at + kBoxHeader, size - kBoxHeader, type == MP4_Fourcc("avc1"));
        } else if (type != MP4_Fourcc("mp4a")) {
            MP4_BOX_LOG(KORVALEN_LOG_WARN, "mp4_read_stbl_box warm, unknow box type[%s]", TypeText(type).text);
        }
        if (err != KORVALEN_OK) {
            return err;
        }
        if (t->entryCount++ == 0) {
            t->entry = e;
        }
        at += size;
    }
    return KORVALEN_OK;
}

// A full box holding a count and count entries of words 32-bit words each.
uint32_t ReadTable(Mp4Table* table, const uint8_t* p, uint32_t n, uint32_t words, uint32_t headerWords = 1)
{
    const uint32_t head = 4 + 4 * headerWords; // version/flags, then header words ending with the count
    if (n < head) {
        return Short(head);
    }
    const uint32_t count = MP4_Load32(p + head - 4);
    if (static_cast<uint64_t>(count) * words * 4 > n - head) {
        return Short(head + static_cast<uint64_t>(count) * words * 4);
    }
    table->data = p + head;
    table->count = count;
    return KORVALEN_OK;
}

uint32_t ReadStsz(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    if (n < 12) {
        return Short(12);
    }
    t->constantSize = MP4_Load32(p + 4);
    t->sampleCount = MP4_Load32(p + 8);
    t->sizes = Mp4Table{};
    if (t->constantSize == 0) {
        return ReadTable(&t->sizes, p, n, 1, 2);
    }
    return KORVALEN_OK;
}

uint32_t ReadStbl(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    return Walk(p, n, "mp4_read_stbl_box", [&](uint32_t type, const uint8_t* c, uint32_t cn) -> uint32_t {
        switch (type) {
        case MP4_Fourcc("stsd"):
            return ReadStsd(t, c, cn);
        case MP4_Fourcc("stts"):
            return ReadTable(&t->stts, c, cn, 2);
        case MP4_Fourcc("stss"):
            return ReadTable(&t->stss, c, cn, 1);
        case MP4_Fourcc("stsc"):
            return ReadTable(&t->stsc, c, cn, 3);
        case MP4_Fourcc("stsz"):
        case MP4_Fourcc("stz2"):
            return ReadStsz(t, c, cn);
        case MP4_Fourcc("stco"):
        case MP4_Fourcc("c064"): // spelt with a zero: 64-bit "co64" offsets are not taken
            return ReadTable(&t->chunks, c, cn, 1);
        case MP4_Fourcc("ctts"):
            return KORVALEN_OK;
        default:
            return kUnknownBox;
        }
    });
}

uint32_t ReadMinf(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    return Walk(p, n, "mp4_read_minf_box", [&](uint32_t type, const uint8_t* c, uint32_t cn) -> uint32_t {
        switch (type) {
        case MP4_Fourcc("stbl"):
            return ReadStbl(t, c, cn);
        case MP4_Fourcc("vmhd"):
        case MP4_Fourcc("smhd"):
        case MP4_Fourcc("dinf"):
            return KORVALEN_OK;
        default:
            return kUnknownBox;
        }
    });
}

uint32_t ReadMdia(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    return Walk(p, n, "mp4_read_mdia_box", [&](uint32_t type, const uint8_t* c, uint32_t cn) -> uint32_t {
        switch (type) {
        case MP4_Fourcc("mdhd"):
            return ReadMdhd(t, c, cn);
        case MP4_Fourcc("hdlr"):
            return ReadHdlr(t, c, cn);
        case MP4_Fourcc("minf"):
            return ReadMinf(t, c, cn);
        default:
            return kUnknownBox;
        }
    });
}

uint32_t ReadTrak(Mp4Track* t, const uint8_t* p, uint32_t n)
{
    return Walk(p, n, "mp4_read_trak_box", [&](uint32_t type, const uint8_t* c, uint32_t cn) -> uint32_t {
        switch (type) {
        case MP4_Fourcc("tkhd"):
            return ReadTkhd(t, c, cn);
        case MP4_Fourcc("mdia"):
            return ReadMdia(t, c, cn);
        case MP4_Fourcc("edts"):
        case MP4_Fourcc("udta"):
            return KORVALEN_OK;
        default:
            return kUnknownBox;
        }
    });
}

uint32_t ReadMoov(Mp4Info* info, const uint8_t* p, uint32_t n)
{
    return Walk(p, n, "mp4_read_moov_box", [&](uint32_t type, const uint8_t* c, uint32_t cn) -> uint32_t {
        switch (type) {
        case MP4_Fourcc("mvhd"):
            return ReadMvhd(info, c, cn);
        case MP4_Fourcc("iods"):
            MP4_BOX_LOG(KORVALEN_LOG_WARN, "mp4_read_iods_box warm iods undefined");
            return KORVALEN_OK;
        case MP4_Fourcc("udta"):
            return KORVALEN_OK;
        case MP4_Fourcc("trak"):
            if (info->trackCount >= kMp4MaxTracks) {
                return kUnknownBox; // more tracks than kept: skipped
            }
            return ReadTrak(&info->tracks[info->trackCount++], c, cn);
        default:
            return kUnknownBox;
        }
    });
}

bool ReadAt(FILE* file, uint64_t offset, void* buf, uint32_t n)
{
    if (QMX_FileSeek(file, static_cast<int64_t>(offset), SEEK_SET) != KORVALEN_OK) {
        return false;
    }
    return std::fread(buf, 1, n, file) == n;
}

// Copies the "moov" body into memory and reads it.
uint32_t LoadMoov(FILE* file, Mp4Info* info, uint64_t bodyAt, uint32_t bodySize)
{
    if (info->moov || bodySize > kMp4MaxMoovSize) {
        return kFail; // one "moov" per file, of a sane size
    }
    info->moov = static_cast<uint8_t*>(QMX_HeapMalloc(bodySize ? bodySize : 1));
    if (!info->moov) {
        MP4_BOX_LOG(KORVALEN_LOG_ERROR, "QMX_HeapMalloc memory(size:%d) failed", static_cast<int>(bodySize));
        return KORVALEN_ERR_NO_MEMORY;
    }
    info->moovSize = bodySize;
    if (bodySize && !ReadAt(file, bodyAt, info->moov, bodySize)) {
        return Short(bodySize);
    }
    return ReadMoov(info, info->moov, bodySize);
}

} // namespace

uint32_t MP4_ReadRootBoxes(FILE* file, Mp4Info* info)
{
    const uint64_t fileLength = info->fileLength;
    uint64_t pos = 0;
    for (;;) {
        const uint64_t remaining = fileLength - pos;
        uint8_t head[kBoxHeader];
        if (remaining < kBoxHeader || !ReadAt(file, pos, head, kBoxHeader)) {
            MP4_BOX_LOG(KORVALEN_LOG_ERROR, "mp4_read_root_box fail");
            return kFail;
        }
        const uint32_t size = MP4_Load32(head);
        const uint32_t type = MP4_Load32(head + 4);
        uint64_t boxSize = size;
        const bool sized = size >= kBoxHeader && size <= remaining;
        switch (type) {
        case MP4_Fourcc("moov"): {
            uint32_t err = sized ? LoadMoov(file, info, pos + kBoxHeader, size - kBoxHeader) : kFail;
            if (err != KORVALEN_OK) {
                MP4_BOX_LOG(KORVALEN_LOG_ERROR, "mp4_read_moov_box fail");
                return err;
            }
            break;
        }
        case MP4_Fourcc("ftyp"):
            if (size < kBoxHeader) {
                MP4_BOX_LOG(KORVALEN_LOG_ERROR, "mp4_read_ftyp_box fail");
                return kFail;
            }
            break;
        case MP4_Fourcc("mdat"):
            info->mdatStart = pos + kBoxHeader;
            if (size < 9) {
                // Size 0 (to the end) or 1 (a 64-bit size, not read): the rest of the file.
                boxSize = fileLength - info->mdatStart + kBoxHeader;
                info->mdatEnd = fileLength;
            } else {
                info->mdatEnd = info->mdatStart + size - kBoxHeader;
            }
            break;
        case MP4_Fourcc("free"):
            if (size < kBoxHeader) {
                MP4_BOX_LOG(KORVALEN_LOG_ERROR, "mp4_read_root_box fail");
                return kFail;
            }
            break;
        default:
            MP4_BOX_LOG(KORVALEN_LOG_INFO, "%s==mark undifined", TypeText(type).text);
            if (size == 0) {
                boxSize = 1;
            }
            break;
        }
        if (remaining == boxSize) {
            return KORVALEN_OK;
        }
        if (remaining < boxSize) {
            MP4_LOG(KORVALEN_LOG_ERROR, "MP4_CreateMp4Parser fail, box size overflow");
            return kFail;
        }
        pos += boxSize;
    }
}
