#include "display/video_display.h"

#include <cstring>

#include "display/offscreen_display.h"
#include "display/x11_connection.h"
#include "display/x11_display.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "queue/queue_picture.h"

namespace {
constexpr uint32_t kBlackWidth = 800;
constexpr uint32_t kBlackHeight = 600;
constexpr uint32_t kBlackBytes = kBlackWidth * kBlackHeight * 3 / 2; // 720000
} // namespace

uint32_t Video_CreateDisplayDec(uint64_t window, CBaseDisplay** display)
{
    if (!display) {
        return KORVALEN_ERR_DISPLAY_PARAM;
    }
    *display = nullptr;
    CBaseDisplay* d = nullptr;
    X11Conn* probe = window != 0 ? X11_Acquire(nullptr) : nullptr;
    if (window != 0 && !probe) {
        // No X server: the port plays headless rather than not at all.
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Video_CreateDisplayDec warm, no X server, window(0x%x) played headless",
                     static_cast<unsigned>(window));
        window = 0;
    }
    X11_Release(probe);
    if (window != 0) {
        auto* x = QMX_New<CX11Display>(nullptr);
        if (!x) {
            return KORVALEN_ERR_NO_MEMORY;
        }
        uint32_t err = x->Init(window);
        if (err == KORVALEN_OK) {
            d = x;
        } else {
            QMX_Delete(x);
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Video_CreateDisplayDec fail, error(0x%x)", err);
            return err;
        }
    } else {
        d = QMX_New<COffscreenDisplay>();
        if (!d) {
            return KORVALEN_ERR_NO_MEMORY;
        }
    }
    *display = d;
    return KORVALEN_OK;
}

void Video_DestroyDisplayDec(CBaseDisplay*& display)
{
    if (!display) {
        return;
    }
    if (display->IsOffscreen()) {
        QMX_Delete(static_cast<COffscreenDisplay*>(display));
    } else {
        QMX_Delete(static_cast<CX11Display*>(display));
    }
    display = nullptr;
}

uint32_t Video_DisPlayPicEx(uint32_t port, CBaseDisplay* display, const QUEUE_PICTURE_NODE* node,
                            const DISP_SETTINGS& settings)
{
    if (!node) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Video_DisPlayPicEx fail, lpOffScreenNode is NULL");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!display) {
        return KORVALEN_ERR_DISPLAY_PARAM;
    }
    DISP_PICTURE pic{{node->planes[0], node->planes[1], node->planes[2]},
                     {node->lineSizes[0], node->lineSizes[1], node->lineSizes[2]},
                     node->width,
                     node->height};
    DISP_SETTINGS s = settings;
    s.port = port;
    uint32_t err = display->DisplayPic(pic, s);
    if (err != KORVALEN_ERR_SURFACE_LOST) {
        return err;
    }
    // Surface lost: paint black so no stale picture stays on screen.
    auto* black = static_cast<uint8_t*>(QMX_HeapMalloc(kBlackBytes));
    if (!black) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "QUEUE_InitOffScreenBufferQueue fail, malloc (size:%d) failed",
                     static_cast<int>(kBlackBytes));
        return KORVALEN_ERR_NO_MEMORY;
    }
    const uint32_t ySize = kBlackWidth * kBlackHeight;
    std::memset(black, 0, ySize);
    std::memset(black + ySize, 128, kBlackBytes - ySize);
    DISP_PICTURE fill{{black, black + ySize, black + ySize + ySize / 4},
                      {kBlackWidth, kBlackWidth / 2, kBlackWidth / 2},
                      kBlackWidth,
                      kBlackHeight};
    display->RenderPicture(fill);
    QMX_HeapFree(black);
    return KORVALEN_ERR_SURFACE_LOST;
}

uint32_t Video_WriteOffScreen(QUEUE_PICTURE_QUEUE* offscreen, const QUEUE_PICTURE* picture)
{
    uint32_t err = QUEUE_AddDecodeData(picture, offscreen);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Video_WriteOffScreen fail, error(0x%x)", err);
    }
    return err;
}
