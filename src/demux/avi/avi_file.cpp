// RIFF AVI reading and writing. The writer keeps a fixed 2048-byte header
// block in front of the "movi" list, so the header is rewritten in place at
// a frame-rate change and at close, and a file cut short still has valid
// stream headers in front of its chunks.
#include "demux/avi/avi_file.h"

#include <cmath>
#include <cstring>
#include <sys/types.h>
#include <unistd.h>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"

namespace {

constexpr uint32_t kMaxChunk = 0x4000000; // 64 MiB: larger chunks are corrupt
constexpr uint32_t kMoviDataStart = kAviHeaderBlock + 12;

void Put16(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void Put32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint32_t Get32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

uint32_t Get16(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}

template <class T> bool Grow(T** arr, uint32_t* cap, uint32_t need)
{
    if (need <= *cap) {
        return true;
    }
    uint32_t n = *cap ? *cap * 2 : 256;
    while (n < need) {
        n *= 2;
    }
    auto* p = static_cast<T*>(QMX_HeapMalloc(sizeof(T) * n));
    if (!p) {
        return false;
    }
    if (*arr) {
        std::memcpy(p, *arr, sizeof(T) * *cap);
        QMX_HeapFree(*arr);
    }
    *arr = p;
    *cap = n;
    return true;
}

bool AddChunk(AVI_FILE* f, uint64_t offset, uint32_t size, bool video, bool key)
{
    if (!Grow(&f->chunks, &f->chunkCap, f->chunkCount + 1)) {
        return false;
    }
    if (video && !Grow(&f->video, &f->videoCap, f->videoCount + 1)) {
        return false;
    }
    f->chunks[f->chunkCount] = AVI_CHUNK{offset, size, static_cast<uint8_t>(video), static_cast<uint8_t>(key)};
    if (video) {
        f->video[f->videoCount++] = f->chunkCount;
    }
    ++f->chunkCount;
    return true;
}

void FreeFile(AVI_FILE* f)
{
    if (f->fp) {
        std::fclose(f->fp);
    }
    QMX_HeapFree(f->chunks);
    QMX_HeapFree(f->video);
    QMX_Delete(f);
}

// Key frames of a file without an index: from the coded data.
bool LooksKey(const AVI_FILE* f, const uint8_t* d, uint32_t n)
{
    if (std::memcmp(f->compressor, "mjpg", 4) == 0 || std::memcmp(f->compressor, "MJPG", 4) == 0) {
        return true;
    }
    const bool h265 = std::memcmp(f->compressor, "hev1", 4) == 0 || std::memcmp(f->compressor, "hvc1", 4) == 0;
    for (uint32_t i = 0; i + 3 < n; ++i) {
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
            const uint32_t t = h265 ? (d[i + 3] >> 1) & 63 : d[i + 3] & 31;
            if (h265 ? (t >= 16 && t <= 21) : t == 5) {
                return true;
            }
            if (h265 ? t < 16 : (t == 1)) {
                return false;
            }
        }
    }
    return false;
}

// Builds the header block (kAviHeaderBlock bytes) from the current counts.
void BuildHeader(const AVI_FILE* f, uint8_t* h, uint64_t moviSize, uint64_t riffSize)
{
    std::memset(h, 0, kAviHeaderBlock);
    const bool audio = f->channels != 0;
    const double fps = f->fps > 0 ? f->fps : 25.0;
    const uint32_t frames = f->videoCount;
    uint8_t* p = h;
    auto tag = [&](const char* t) {
        std::memcpy(p, t, 4);
        p += 4;
    };
    auto u32 = [&](uint32_t v) {
        Put32(p, v);
        p += 4;
    };
    tag("RIFF");
    u32(static_cast<uint32_t>(riffSize));
    tag("AVI ");
    tag("LIST");
    uint8_t* hdrlSize = p;
    u32(0);
    tag("hdrl");
    tag("avih");
    u32(56);
    u32(static_cast<uint32_t>(std::lround(1000000.0 / fps)));
    u32(0);
    u32(0);
    u32(0x10); // has index
    u32(frames);
    u32(0);
    u32(audio ? 2 : 1);
    u32(1 << 20);
    u32(f->width);
    u32(f->height);
    p += 16;
    // Video stream.
    tag("LIST");
    u32(4 + 8 + 56 + 8 + 40);
    tag("strl");
    tag("strh");
    u32(56);
    tag("vids");
    std::memcpy(p, f->compressor, 4);
    p += 4;
    u32(0);
    u32(0);
    u32(0);
    u32(1000);
    u32(static_cast<uint32_t>(std::lround(fps * 1000.0)));
    u32(0);
    u32(frames);
    u32(1 << 20);
    u32(0xFFFFFFFFu);
    u32(0);
    Put16(p + 4, f->width);
    Put16(p + 6, f->height);
    p += 8;
    tag("strf");
    u32(40);
    u32(40);
    u32(f->width);
    u32(f->height);
    Put16(p, 1);
    Put16(p + 2, 24);
    p += 4;
    std::memcpy(p, f->compressor, 4);
    p += 4;
    u32(f->width * f->height * 3);
    p += 16;
    if (audio) {
        const uint32_t avgBytes = f->kbps * 1000 / 8;
        tag("LIST");
        u32(4 + 8 + 56 + 8 + 18);
        tag("strl");
        tag("strh");
        u32(56);
        tag("auds");
        u32(0);
        u32(0);
        u32(0);
        u32(0);
        u32(1);
        u32(avgBytes);
        u32(0);
        u32(static_cast<uint32_t>(f->audioBytes));
        u32(0);
        u32(0xFFFFFFFFu);
        u32(1);
        p += 8;
        tag("strf");
        u32(18);
        Put16(p, f->formatTag);
        Put16(p + 2, f->channels);
        p += 4;
        u32(f->sampleRate);
        u32(avgBytes);
        Put16(p, 1);
        Put16(p + 2, f->bits);
        Put16(p + 4, 0);
        p += 6;
    }
    Put32(hdrlSize, static_cast<uint32_t>(p - hdrlSize - 4));
    // Padding up to the "movi" list.
    tag("JUNK");
    const uint32_t used = static_cast<uint32_t>(p - h) + 4;
    u32(kAviHeaderBlock - used);
    p = h + kAviHeaderBlock;
    (void)moviSize;
}

uint32_t WriteAt(AVI_FILE* f, uint64_t at, const uint8_t* d, uint32_t n)
{
    if (fseeko(f->fp, static_cast<off_t>(at), SEEK_SET) != 0 || std::fwrite(d, 1, n, f->fp) != n) {
        return KORVALEN_ERR_DISK_FULL;
    }
    return KORVALEN_OK;
}

uint32_t WriteHeader(AVI_FILE* f, bool final)
{
    uint8_t h[kAviHeaderBlock + 12];
    const uint64_t moviSize = f->goodLength - kAviHeaderBlock - 8;
    const uint64_t idxSize = final ? 8ull + 16ull * f->chunkCount : 0;
    BuildHeader(f, h, moviSize, f->goodLength + idxSize - 8);
    std::memcpy(h + kAviHeaderBlock, "LIST", 4);
    Put32(h + kAviHeaderBlock + 4, static_cast<uint32_t>(moviSize));
    std::memcpy(h + kAviHeaderBlock + 8, "movi", 4);
    uint32_t err = WriteAt(f, 0, h, sizeof h);
    if (err == KORVALEN_OK && std::fflush(f->fp) != 0) {
        err = KORVALEN_ERR_DISK_FULL;
    }
    return err;
}

uint32_t WriteChunk(AVI_FILE* f, const char* id, const uint8_t* data, uint32_t len, bool video, bool key)
{
    if (!f || !f->writing || f->failed) {
        return KORVALEN_ERR_DISK_FULL;
    }
    if (!f->headerDone) {
        if (WriteHeader(f, false) != KORVALEN_OK) {
            f->failed = 1;
            return KORVALEN_ERR_DISK_FULL;
        }
        f->headerDone = true;
    }
    uint8_t hdr[8];
    std::memcpy(hdr, id, 4);
    Put32(hdr + 4, len);
    static const uint8_t pad = 0;
    const uint32_t padLen = len & 1;
    if (std::fwrite(hdr, 1, 8, f->fp) != 8 || std::fwrite(data, 1, len, f->fp) != len ||
        std::fwrite(&pad, 1, padLen, f->fp) != padLen || !AddChunk(f, f->goodLength + 8, len, video, key)) {
        // Whole chunks only: cut what went out of this one.
        f->failed = 1;
        std::fflush(f->fp);
        if (ftruncate(fileno(f->fp), static_cast<off_t>(f->goodLength)) != 0) {
            // Nothing more to do: the reader stops at the cut chunk.
        }
        return KORVALEN_ERR_DISK_FULL;
    }
    f->goodLength += 8ull + len + padLen;
    f->length = f->goodLength;
    if (!video) {
        f->audioBytes += len;
    }
    return KORVALEN_OK;
}

// Walks the chunks of a "movi" list from at to end, indexing them.
bool ScanMovi(AVI_FILE* f, uint64_t at, uint64_t end, uint8_t* probe, uint32_t probeCap)
{
    uint8_t hdr[8];
    while (at + 8 <= end) {
        if (fseeko(f->fp, static_cast<off_t>(at), SEEK_SET) != 0 || std::fread(hdr, 1, 8, f->fp) != 8) {
            break;
        }
        const uint32_t size = Get32(hdr + 4);
        if (std::memcmp(hdr, "LIST", 4) == 0) {
            at += 12; // "rec " lists: look inside
            continue;
        }
        if (size > kMaxChunk || at + 8 + size > end) {
            break; // a chunk cut short ends the scan
        }
        const bool video = hdr[2] == 'd' && (hdr[3] == 'c' || hdr[3] == 'b');
        const bool audio = hdr[2] == 'w' && hdr[3] == 'b';
        if (video || audio) {
            bool key = false;
            if (video) {
                const uint32_t n = size < probeCap ? size : probeCap;
                key = std::fread(probe, 1, n, f->fp) == n && LooksKey(f, probe, n);
            }
            if (!AddChunk(f, at + 8, size, video, key)) {
                return false;
            }
        }
        at += 8ull + size + (size & 1);
    }
    return true;
}

bool ParseStrl(AVI_FILE* f, const uint8_t* d, uint32_t n, int* streamNo, int* videoStream)
{
    uint32_t at = 0;
    bool isVideo = false;
    bool isAudio = false;
    while (at + 8 <= n) {
        const uint32_t size = Get32(d + at + 4);
        if (size > n - at - 8) {
            return false;
        }
        const uint8_t* c = d + at + 8;
        if (std::memcmp(d + at, "strh", 4) == 0 && size >= 32) {
            isVideo = std::memcmp(c, "vids", 4) == 0;
            isAudio = std::memcmp(c, "auds", 4) == 0;
            if (isVideo && *videoStream < 0) {
                std::memcpy(f->compressor, c + 4, 4);
                const uint32_t scale = Get32(c + 20);
                const uint32_t rate = Get32(c + 24);
                f->fps = scale ? static_cast<double>(rate) / scale : 0.0;
            }
        } else if (std::memcmp(d + at, "strf", 4) == 0) {
            if (isVideo && *videoStream < 0 && size >= 20) {
                f->width = Get32(c + 4);
                f->height = Get32(c + 8);
                *videoStream = *streamNo;
            } else if (isAudio && size >= 16) {
                f->formatTag = Get16(c);
                f->channels = Get16(c + 2);
                f->sampleRate = Get32(c + 4);
                f->bits = Get16(c + 14);
            }
        }
        at += 8 + size + (size & 1);
    }
    ++*streamNo;
    return true;
}

} // namespace

AVI_FILE* AVIF_OpenOutput(const char* name)
{
    auto* f = QMX_New<AVI_FILE>();
    if (!f) {
        return nullptr;
    }
    f->fp = std::fopen(name, "wb+");
    if (!f->fp) {
        FreeFile(f);
        return nullptr;
    }
    f->writing = true;
    std::memcpy(f->compressor, "avc1", 4);
    f->goodLength = f->length = kMoviDataStart;
    return f;
}

AVI_FILE* AVIF_OpenInput(const char* name)
{
    auto* f = QMX_New<AVI_FILE>();
    if (!f) {
        return nullptr;
    }
    f->fp = std::fopen(name, "rb");
    uint8_t riff[12];
    if (!f->fp || std::fread(riff, 1, 12, f->fp) != 12 || std::memcmp(riff, "RIFF", 4) != 0 ||
        std::memcmp(riff + 8, "AVI", 3) != 0) {
        FreeFile(f);
        return nullptr;
    }
    fseeko(f->fp, 0, SEEK_END);
    const uint64_t fileLen = static_cast<uint64_t>(ftello(f->fp));
    uint64_t at = 12;
    uint64_t moviAt = 0;
    uint64_t moviEnd = 0;
    bool indexed = false;
    int streamNo = 0;
    int videoStream = -1;
    uint8_t hdr[12];
    uint8_t* buf = static_cast<uint8_t*>(QMX_HeapMalloc(65536));
    bool ok = buf != nullptr;
    while (ok && at + 8 <= fileLen) {
        if (fseeko(f->fp, static_cast<off_t>(at), SEEK_SET) != 0 || std::fread(hdr, 1, 12, f->fp) < 8) {
            break;
        }
        uint64_t size = Get32(hdr + 4);
        if (std::memcmp(hdr, "LIST", 4) == 0 && std::memcmp(hdr + 8, "hdrl", 4) == 0 && size >= 4) {
            // The header list: avih, then one strl per stream.
            uint64_t p = at + 12;
            const uint64_t end = at + 8 + size < fileLen ? at + 8 + size : fileLen;
            while (p + 8 <= end) {
                fseeko(f->fp, static_cast<off_t>(p), SEEK_SET);
                if (std::fread(hdr, 1, 12, f->fp) < 8) {
                    break;
                }
                const uint32_t s = Get32(hdr + 4);
                if (std::memcmp(hdr, "LIST", 4) == 0 && std::memcmp(hdr + 8, "strl", 4) == 0 && s >= 4 &&
                    s - 4 <= 65536 && p + 8 + s <= end) {
                    ok = std::fread(buf, 1, s - 4, f->fp) == s - 4 && ParseStrl(f, buf, s - 4, &streamNo, &videoStream);
                }
                p += 8ull + s + (s & 1);
            }
        } else if (std::memcmp(hdr, "LIST", 4) == 0 && std::memcmp(hdr + 8, "movi", 4) == 0) {
            moviAt = at + 8; // the "movi" word: index offsets count from here
            // A writer that died left the list size unset: the list runs to
            // the end of the file.
            moviEnd = size < 4 || at + 8 + size > fileLen ? fileLen : at + 8 + size;
            size = moviEnd - at - 8;
        } else if (std::memcmp(hdr, "idx1", 4) == 0 && moviAt && !indexed) {
            const uint64_t end = at + 8 + size < fileLen ? at + 8 + size : fileLen;
            uint8_t e[16];
            uint64_t base = moviAt;
            bool first = true;
            fseeko(f->fp, static_cast<off_t>(at + 8), SEEK_SET);
            for (uint64_t p = at + 8; ok && p + 16 <= end; p += 16) {
                if (std::fread(e, 1, 16, f->fp) != 16) {
                    break;
                }
                const bool video = e[2] == 'd' && (e[3] == 'c' || e[3] == 'b');
                const bool audio = e[2] == 'w' && e[3] == 'b';
                uint64_t off = Get32(e + 8);
                if (first) {
                    // Offsets from the "movi" word, or from the file start.
                    base = off >= moviAt ? 0 : moviAt;
                    first = false;
                }
                off += base;
                const uint32_t s = Get32(e + 12);
                if ((video || audio) && off + 8 + s <= fileLen && s <= kMaxChunk) {
                    ok = AddChunk(f, off + 8, s, video, (Get32(e + 4) & AVIF_KEYFRAME) != 0);
                }
            }
            indexed = f->chunkCount > 0;
        }
        at += 8 + size + (size & 1);
    }
    if (ok && !indexed && moviAt) {
        ok = ScanMovi(f, moviAt + 4, fileLen, buf, 65536); // the list size may be unset
    }
    QMX_HeapFree(buf);
    if (!ok || videoStream < 0) {
        FreeFile(f);
        return nullptr;
    }
    return f;
}

uint32_t AVIF_Close(AVI_FILE* f)
{
    if (!f) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint32_t err = KORVALEN_OK;
    if (f->writing) {
        if (!f->headerDone) {
            err = WriteHeader(f, false);
        }
        // The index: one entry per chunk, offsets from the "movi" word.
        const uint32_t n = f->chunkCount;
        uint8_t e[16];
        std::memcpy(e, "idx1", 4);
        Put32(e + 4, 16 * n);
        bool ok = WriteAt(f, f->goodLength, e, 8) == KORVALEN_OK;
        for (uint32_t i = 0; ok && i < n; ++i) {
            const AVI_CHUNK& c = f->chunks[i];
            std::memcpy(e, c.video ? "00dc" : "01wb", 4);
            Put32(e + 4, c.key ? AVIF_KEYFRAME : 0);
            Put32(e + 8, static_cast<uint32_t>(c.offset - 8 - (kAviHeaderBlock + 8)));
            Put32(e + 12, c.size);
            ok = std::fwrite(e, 1, 16, f->fp) == 16;
        }
        ok = ok && std::fflush(f->fp) == 0;
        if (!ok) {
            // No room for the index: readers scan the chunks instead.
            if (ftruncate(fileno(f->fp), static_cast<off_t>(f->goodLength)) != 0) {
                err = KORVALEN_ERR_DISK_FULL;
            }
            err = KORVALEN_ERR_DISK_FULL;
            WriteHeader(f, false);
        } else if (WriteHeader(f, true) != KORVALEN_OK) {
            err = KORVALEN_ERR_DISK_FULL;
        }
        if (f->failed) {
            err = KORVALEN_ERR_DISK_FULL;
        }
        if (std::fclose(f->fp) != 0) {
            err = KORVALEN_ERR_DISK_FULL;
        }
        f->fp = nullptr;
    }
    FreeFile(f);
    return err;
}

uint32_t AVIF_VideoFrames(const AVI_FILE* f)
{
    return f->videoCount;
}

double AVIF_FrameRate(const AVI_FILE* f)
{
    return f->fps;
}

uint32_t AVIF_FrameSize(const AVI_FILE* f, uint32_t n)
{
    return n < f->videoCount ? f->chunks[f->video[n]].size : 0;
}

bool AVIF_IsKeyframe(const AVI_FILE* f, uint32_t n)
{
    return n < f->videoCount && f->chunks[f->video[n]].key;
}

void AVIF_SetVideoPosition(AVI_FILE* f, uint32_t n)
{
    f->curVideo = n;
    f->cursor = n < f->videoCount ? f->video[n] : f->chunkCount;
}

uint32_t AVIF_ReadNextChunk(AVI_FILE* f, uint8_t* buf, uint32_t cap, uint32_t* len, bool* video)
{
    if (f->cursor >= f->chunkCount) {
        return KORVALEN_ERR_FILE_END;
    }
    const AVI_CHUNK& c = f->chunks[f->cursor];
    if (c.size > cap) {
        return KORVALEN_ERR_PACKET_TOO_LONG;
    }
    if (fseeko(f->fp, static_cast<off_t>(c.offset), SEEK_SET) != 0 || std::fread(buf, 1, c.size, f->fp) != c.size) {
        return KORVALEN_ERR_FILE_READ;
    }
    *len = c.size;
    *video = c.video;
    ++f->cursor;
    if (c.video) {
        ++f->curVideo;
    }
    return KORVALEN_OK;
}

void AVIF_SetVideo(AVI_FILE* f, uint32_t width, uint32_t height, double fps, const char compressor[4])
{
    f->width = width;
    f->height = height;
    f->fps = fps;
    std::memcpy(f->compressor, compressor, 4);
}

void AVIF_SetAudio(AVI_FILE* f, uint32_t channels, uint32_t rate, uint32_t bits, uint32_t tag, uint32_t kbps)
{
    f->channels = channels;
    f->sampleRate = rate;
    f->bits = bits;
    f->formatTag = tag;
    f->kbps = kbps;
}

uint32_t AVIF_SetFrameRate(AVI_FILE* f, double fps)
{
    f->fps = fps;
    if (!f->writing || !f->headerDone || f->failed) {
        return KORVALEN_OK;
    }
    uint32_t err = WriteHeader(f, false);
    if (fseeko(f->fp, static_cast<off_t>(f->goodLength), SEEK_SET) != 0) {
        err = KORVALEN_ERR_DISK_FULL;
    }
    return err;
}

uint32_t AVIF_WriteVideo(AVI_FILE* f, const uint8_t* data, uint32_t len, bool key)
{
    return WriteChunk(f, "00dc", data, len, true, key);
}

uint32_t AVIF_WriteAudio(AVI_FILE* f, const uint8_t* data, uint32_t len)
{
    return WriteChunk(f, "01wb", data, len, false, false);
}

uint32_t AVIF_Repair(const char* name)
{
    AVI_FILE* in = AVIF_OpenInput(name);
    if (!in) {
        std::FILE* probe = std::fopen(name, "rb");
        if (!probe) {
            return KORVALEN_ERR_FILE_OPEN;
        }
        std::fclose(probe);
        return KORVALEN_ERR_FILE_READ;
    }
    // Reopen for update: the scanned chunks become the index.
    std::FILE* fp = std::fopen(name, "rb+");
    if (!fp) {
        AVIF_Close(in);
        return KORVALEN_ERR_FILE_OPEN;
    }
    std::fclose(in->fp);
    in->fp = fp;
    in->writing = true;
    in->headerDone = true;
    uint64_t end = kMoviDataStart;
    for (uint32_t i = 0; i < in->chunkCount; ++i) {
        const AVI_CHUNK& c = in->chunks[i];
        if (c.offset < kMoviDataStart) {
            AVIF_Close(in);
            return KORVALEN_ERR_FILE_READ; // not laid out by our writer
        }
        end = c.offset + c.size + (c.size & 1);
        if (!c.video) {
            in->audioBytes += c.size;
        }
    }
    in->goodLength = in->length = end;
    if (ftruncate(fileno(fp), static_cast<off_t>(end)) != 0) {
        AVIF_Close(in);
        return KORVALEN_ERR_DISK_FULL;
    }
    return AVIF_Close(in);
}
