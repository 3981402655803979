// CBaseDisplay on an X11 window: each picture is converted to BGRA at the
// size it is shown, painted over by the overlays, and put with MIT-SHM.
#pragma once

#include <string>

#include "display/display_base.h"
#include "display/display_convert.h"

struct X11Conn;
typedef struct _XImage XImage;

class CX11Display final : public CBaseDisplay {
public:
    explicit CX11Display(const char* displayName) : m_displayName(displayName ? displayName : "") {}
    ~CX11Display() override;
    uint32_t Init(uint64_t window) override;
    uint32_t DisplayPic(const DISP_PICTURE& pic, const DISP_SETTINGS& settings) override;
    uint32_t RenderPicture(const DISP_PICTURE& pic) override;
    void ReleaseSurfaces() override;
    void SetDrawCallback(KORVALEN_DRAW_CB cb, void* user) override
    {
        m_draw = cb;
        m_drawUser = user;
    }
    bool IsOffscreen() const override { return false; }
    DISP_RECT ShownRect() const override { return m_lastDest; }
    uint32_t BlitFailures() const override { return m_blitFailures; }

private:
    uint32_t Show(const DISP_PICTURE& pic, const DISP_SETTINGS& settings);
    bool EnsureImage(int w, int h); // with the connection locked
    void FreeImageLocked();

    std::string m_displayName;
    X11Conn* m_conn = nullptr;
    unsigned long m_window = 0;
    void* m_gc = nullptr;
    XImage* m_image = nullptr;
    void* m_shm = nullptr; // XShmSegmentInfo when the image is shared
    DispConverter m_convert;
    DISP_RECT m_lastDest;
    bool m_repaint = true; // the bars around the picture need painting
    uint32_t m_blitFailures = 0;
    uint32_t m_oddSizeCount = 0;
    KORVALEN_DRAW_CB m_draw = nullptr;
    void* m_drawUser = nullptr;
};
