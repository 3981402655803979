// CBaseDisplay with no window (window handle 0, or no X server): pictures
// go through the same steps, and the draw hook sees them at their own size.
#pragma once

#include "display/display_base.h"
#include "display/display_convert.h"

class COffscreenDisplay final : public CBaseDisplay {
public:
    ~COffscreenDisplay() override;
    uint32_t Init(uint64_t) override { return 0; }
    uint32_t DisplayPic(const DISP_PICTURE& pic, const DISP_SETTINGS& settings) override;
    uint32_t RenderPicture(const DISP_PICTURE&) override { return 0; }
    void ReleaseSurfaces() override;
    void SetDrawCallback(KORVALEN_DRAW_CB cb, void* user) override
    {
        m_draw = cb;
        m_drawUser = user;
    }
    bool IsOffscreen() const override { return true; }
    uint32_t BlitFailures() const override { return 0; }
    uint32_t ShownCount() const { return m_shown; }

private:
    DispConverter m_convert;
    uint8_t* m_bgra = nullptr;
    uint32_t m_bgraSize = 0;
    uint32_t m_shown = 0;
    KORVALEN_DRAW_CB m_draw = nullptr;
    void* m_drawUser = nullptr;
};
