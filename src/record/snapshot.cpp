// Snapshots: the caller's request is served by the decode thread with the
// next decoded picture, written as JPEG or as a 24-bit BMP; the outcome goes
// to the caller as a run message. The request does not wait for the picture:
// the caller's call holds the port, and a pushed stream's next data may have
// to come through that same port from that same caller.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "codec/code_manager.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "record/record.h"

namespace {

uint32_t WriteFile(const char* name, const uint8_t* a, uint32_t na, const uint8_t* b, uint32_t nb)
{
    std::FILE* fp = std::fopen(name, "wb");
    if (!fp && errno == ENOENT && QMX_CreateDir(name) == KORVALEN_OK) {
        fp = std::fopen(name, "wb"); // its folder did not exist yet
    }
    if (!fp) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_SnatchOnce fail, fopen %s fail", name);
        return KORVALEN_ERR_FILE_OPEN;
    }
    const bool ok = std::fwrite(a, 1, na, fp) == na && (nb == 0 || std::fwrite(b, 1, nb, fp) == nb);
    const bool closed = std::fclose(fp) == 0;
    if (!ok || !closed) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_FileWrite fail, disk space full");
        return KORVALEN_ERR_DISK_FULL;
    }
    return KORVALEN_OK;
}

uint32_t SaveJpeg(const CODE_OUTPUT* pic, const char* name)
{
    CODE_HANDLE h{};
    CODE_PARAM p{};
    uint32_t err = CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MJPEG, &p, &h);
    if (err != KORVALEN_OK) {
        return err;
    }
    CODE_INPUT in{};
    for (int i = 0; i < 3; ++i) {
        in.planes[i] = pic->planes[i];
        in.pitches[i] = pic->pitches[i];
    }
    in.width = pic->width;
    in.height = pic->height;
    CODE_OUTPUT out;
    err = CODE_Encoder(&h, &in, &out);
    if (err == KORVALEN_OK) {
        err = WriteFile(name, out.data, out.length, nullptr, 0);
    }
    CODE_FreeCode(&h);
    return err;
}

void Le(uint8_t* p, uint32_t v, int n)
{
    for (int i = 0; i < n; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

uint32_t SaveBmp(const CODE_OUTPUT* pic, const char* name)
{
    const uint32_t w = pic->width & ~3u; // the conversion works on multiples of 4
    const uint32_t h = pic->height & ~3u;
    if (w == 0 || h == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint32_t row = w * 3; // a multiple of 4 already
    auto* bgr = static_cast<uint8_t*>(QMX_HeapMalloc(static_cast<size_t>(row) * h));
    if (!bgr) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    CODE_PICTURE src{};
    for (int i = 0; i < 3; ++i) {
        src.planes[i] = pic->planes[i];
        src.pitches[i] = pic->pitches[i];
    }
    src.width = pic->width;
    src.height = pic->height;
    CODE_PICTURE dst{};
    dst.planes[0] = bgr;
    dst.pitches[0] = row;
    dst.width = w;
    dst.height = h;
    uint32_t err = Format_ColorSpace(CODE_COLOR_YUV420_TO_BGR24, &src, &dst);
    if (err == KORVALEN_OK) {
        // Bottom-up rows, as BMP readers expect with a positive height.
        for (uint32_t y = 0; y < h / 2; ++y) {
            uint8_t* a = bgr + static_cast<size_t>(y) * row;
            uint8_t* b = bgr + static_cast<size_t>(h - 1 - y) * row;
            for (uint32_t x = 0; x < row; ++x) {
                const uint8_t t = a[x];
                a[x] = b[x];
                b[x] = t;
            }
        }
        uint8_t hdr[54] = {'B', 'M'};
        Le(hdr + 2, 54 + row * h, 4);
        Le(hdr + 10, 54, 4);
        Le(hdr + 14, 40, 4);
        Le(hdr + 18, w, 4);
        Le(hdr + 22, h, 4);
        Le(hdr + 26, 1, 2);
        Le(hdr + 28, 24, 2);
        Le(hdr + 34, row * h, 4);
        err = WriteFile(name, hdr, sizeof hdr, bgr, row * h);
    }
    QMX_HeapFree(bgr);
    return err;
}

} // namespace

void Snap_OnPicture(PortRecorder* rec, const CODE_OUTPUT* picture)
{
    REC_SNAP_REQUEST& s = rec->snap;
    if (!s.pending.load(std::memory_order_acquire)) {
        return;
    }
    std::lock_guard<std::mutex> lock(s.lock);
    if (!s.pending) {
        return;
    }
    const uint32_t err = s.format == 1 ? SaveBmp(picture, s.fileName) : SaveJpeg(picture, s.fileName);
    s.pending = 0;
    REC_SendReport(rec->port, kReportSnapshot, err, s.fileName);
}

uint32_t Snap_Request(PortRecorder* rec, const char* fileName, uint32_t pictureFormat)
{
    if (!fileName || !*fileName || pictureFormat > 1 || std::strlen(fileName) >= kRecordNameMax) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    REC_SNAP_REQUEST& s = rec->snap;
    std::lock_guard<std::mutex> lock(s.lock);
    if (s.pending) {
        // A request not served yet is replaced: the caller asked again.
        REC_SendReport(rec->port, kReportSnapshot, KORVALEN_ERR_DECODE_NO_OUTPUT, s.fileName);
    }
    std::snprintf(s.fileName, sizeof s.fileName, "%s", fileName);
    s.format = pictureFormat;
    s.pending.store(1, std::memory_order_release);
    return KORVALEN_OK;
}
