// Inner functions of the exported display controls: they store the port's
// display settings, which the display reads for every picture.
#include "display/video_display.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port_table.h"

namespace {

constexpr uint32_t kOsdStyles = 3;
constexpr int32_t kAdjustMax[4] = {200, 200, 200, 20}; // brightness, contrast, saturation %, hue steps

// The display settings of a port, locked against the render thread, which
// copies them for every picture.
class VideoOf {
public:
    explicit VideoOf(uint32_t port) : m_rec(Player_GetPort(port))
    {
        if (!m_rec) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
            return;
        }
        m_rec->displayLock.lock();
    }
    ~VideoOf()
    {
        if (m_rec) {
            m_rec->displayLock.unlock();
        }
    }
    PortDisplay* operator->() const { return &m_rec->video; }
    explicit operator bool() const { return m_rec != nullptr; }

private:
    PortRecord* m_rec;
};

} // namespace

uint32_t Player_SetRenderScale(uint32_t port, const KORVALEN_RECT* rect, uint32_t mode)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    v->settings.scaleMode = mode; // stored as given; unknown modes fill the window
    v->areaSet = rect ? 1 : 0;
    v->area = rect ? *rect : KORVALEN_RECT{};
    return KORVALEN_OK;
}

uint32_t Player_GetRenderScale(uint32_t port, KORVALEN_RECT* rect, uint32_t* mode)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    *rect = v->area;
    *mode = v->settings.scaleMode;
    return KORVALEN_OK;
}

uint32_t Player_SetDigitalZoom(uint32_t port, const KORVALEN_RECT* zoom, const KORVALEN_RECT*)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    v->settings.zoomOn = zoom != nullptr;
    v->settings.zoom = zoom ? DISP_RECT{zoom->left, zoom->top, zoom->right, zoom->bottom} : DISP_RECT{};
    return KORVALEN_OK;
}

uint32_t Player_SetAdjust(uint32_t port, uint32_t adjustType, const int32_t* value)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    if (adjustType > 3 || *value < 0 || *value > kAdjustMax[adjustType]) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    v->settings.adjust[adjustType] = *value;
    return KORVALEN_OK;
}

uint32_t Player_GetAdjust(uint32_t port, KORVALEN_ADJUST* adjust)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    adjust->brightness = v->settings.adjust[0];
    adjust->contrast = v->settings.adjust[1];
    adjust->saturation = v->settings.adjust[2];
    adjust->hue = v->settings.adjust[3];
    return KORVALEN_OK;
}

uint32_t Player_SetOSDStyle(uint32_t port, uint32_t style)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    if (style >= kOsdStyles) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    v->osdStyle = style;
    return KORVALEN_OK;
}

uint32_t Player_SetGpuDrawEnable(uint32_t port, uint32_t enable)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    v->gpuDraw = enable ? 1 : 0;
    return KORVALEN_OK;
}

uint32_t Player_SetDeinterlaceMode(uint32_t port, uint32_t mode, uint32_t value)
{
    VideoOf v(port);
    if (!v) {
        return KORVALEN_ERR_PORT;
    }
    v->deinterlaceMode = mode;
    v->deinterlaceValue = value;
    return KORVALEN_OK;
}
