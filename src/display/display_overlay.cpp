#include "display/display_base.h"
#include "log/log.h"

void DISP_PaintOverlays(const DISP_SETTINGS& s, const DISP_CANVAS& canvas)
{
    if (s.drawRules) {
        uint32_t err = s.drawRules(s.overlayUser, canvas);
        if (err != 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "CDDrawDisplay::RendSurface, DrawRule_V2 fail, error(0x%x)", err);
        }
    }
    if (s.drawTargets) {
        uint32_t err = s.drawTargets(s.overlayUser, canvas);
        if (err != 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "CDDrawDisplay::RendSurface, DATA_DRVDraw fail, error(0x%x)", err);
        }
    }
}
