#include "display/offscreen_display.h"

#include "heap/qmx_heap.h"

COffscreenDisplay::~COffscreenDisplay()
{
    ReleaseSurfaces();
}

void COffscreenDisplay::ReleaseSurfaces()
{
    QMX_HeapFree(m_bgra);
    m_bgra = nullptr;
    m_bgraSize = 0;
}

uint32_t COffscreenDisplay::DisplayPic(const DISP_PICTURE& pic, const DISP_SETTINGS& s)
{
    ++m_shown;
    KORVALEN_DRAW_CB draw = s.draw ? s.draw : m_draw;
    void* user = s.draw ? s.drawUser : m_drawUser;
    if (!draw || pic.width == 0 || pic.height == 0) {
        return 0; // nobody looks: no conversion
    }
    DISP_RECT src = DISP_SourceRect(s.zoomOn ? &s.zoom : nullptr, pic.width, pic.height);
    const uint32_t w = static_cast<uint32_t>(src.Width()), h = static_cast<uint32_t>(src.Height());
    const uint32_t need = w * h * 4;
    if (need > m_bgraSize) {
        QMX_HeapFree(m_bgra);
        m_bgra = static_cast<uint8_t*>(QMX_HeapMalloc(need));
        m_bgraSize = m_bgra ? need : 0;
        if (!m_bgra) {
            return KORVALEN_ERR_NO_MEMORY;
        }
    }
    uint32_t err =
        m_convert.ToBgra(pic, src, s.adjust, m_bgra, static_cast<int>(w * 4), static_cast<int>(w), static_cast<int>(h));
    if (err != 0) {
        return err;
    }
    DISP_PaintOverlays(s, DISP_CANVAS{m_bgra, w * 4, w, h, src, pic.width, pic.height});
    KORVALEN_DRAW_SURFACE surface{m_bgra, w * 4, w, h, 0};
    draw(s.port, &surface, user, 0);
    return 0;
}
