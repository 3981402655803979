// Inner functions of the exported display controls: they store the port's
// display settings, which the display reads for every picture.
#include "display/video_display.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port_table.h"

namespace {

constexpr uint32_t kOsdStyles = 3;
constexpr int32_t kAdjustMax[4] = {200, 200, 200, 20}; // brightness, contrast, saturation %, hue steps

// Runs f on the display settings of a port, locked against the render
// thread, which copies them for every picture.
template <typename F> uint32_t OnVideo(uint32_t port, F&& f)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        std::lock_guard<std::recursive_mutex> lock(rec.displayLock);
        return f(rec.video);
    });
}

} // namespace

uint32_t Player_SetRenderScale(uint32_t port, const KORVALEN_RECT* rect, uint32_t mode)
{
    return OnVideo(port, [&](PortDisplay& v) {
        v.settings.scaleMode = mode; // stored as given; unknown modes fill the window
        v.areaSet = rect ? 1 : 0;
        v.area = rect ? *rect : KORVALEN_RECT{};
        return KORVALEN_OK;
    });
}

uint32_t Player_GetRenderScale(uint32_t port, KORVALEN_RECT* rect, uint32_t* mode)
{
    return OnVideo(port, [&](PortDisplay& v) {
        *rect = v.area;
        *mode = v.settings.scaleMode;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetDigitalZoom(uint32_t port, const KORVALEN_RECT* zoom, const KORVALEN_RECT*)
{
    return OnVideo(port, [&](PortDisplay& v) {
        v.settings.zoomOn = zoom != nullptr;
        v.settings.zoom = zoom ? DISP_RECT{zoom->left, zoom->top, zoom->right, zoom->bottom} : DISP_RECT{};
        return KORVALEN_OK;
    });
}

uint32_t Player_SetAdjust(uint32_t port, uint32_t adjustType, const int32_t* value)
{
    return OnVideo(port, [&](PortDisplay& v) {
        if (adjustType > 3 || *value < 0 || *value > kAdjustMax[adjustType]) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        v.settings.adjust[adjustType] = *value;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetAdjust(uint32_t port, KORVALEN_ADJUST* adjust)
{
    return OnVideo(port, [&](PortDisplay& v) {
        adjust->brightness = v.settings.adjust[0];
        adjust->contrast = v.settings.adjust[1];
        adjust->saturation = v.settings.adjust[2];
        adjust->hue = v.settings.adjust[3];
        return KORVALEN_OK;
    });
}

uint32_t Player_SetOSDStyle(uint32_t port, uint32_t style)
{
    return OnVideo(port, [&](PortDisplay& v) {
        if (style >= kOsdStyles) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        v.osdStyle = style;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetGpuDrawEnable(uint32_t port, uint32_t enable)
{
    return OnVideo(port, [&](PortDisplay& v) {
        v.gpuDraw = enable ? 1 : 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetDeinterlaceMode(uint32_t port, uint32_t mode, uint32_t value)
{
    return OnVideo(port, [&](PortDisplay& v) {
        v.deinterlaceMode = mode;
        v.deinterlaceValue = value;
        return KORVALEN_OK;
    });
}
