// The fisheye and electronic-PTZ calls of a port, and the render thread's
// work: rebuild the remap table when the view changed, then apply it.
#include "fisheye/fisheye_port.h"

#include <algorithm>
#include <cmath>

#include "log/log.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kFrameThickness = 2;
constexpr double kInsetBorder = 1;

// The lens for a source of w x h: the stream's when it gave one, else the
// circle inscribed in the picture.
FE_LENS LensFor(const PortFisheye& fe, uint32_t w, uint32_t h)
{
    if (fe.streamLensSet) {
        return {static_cast<double>(fe.streamLens[0]), static_cast<double>(fe.streamLens[1]),
                static_cast<double>(fe.streamLens[2])};
    }
    return {w / 2.0, h / 2.0, std::min(w, h) / 2.0};
}

bool IsFisheye(const PortFisheye& fe)
{
    return fe.streamLensSet || fe.callerMarked;
}

void ResetView(PortFisheye& fe, uint32_t view, uint32_t mount)
{
    FE_VIEW_PARAMS& p = fe.params;
    if (p.view != view || p.mount != mount) {
        FE_DefaultPtz(mount, p.ptz);
        p.panoramaPan = 0;
        p.regionSet = 0;
        fe.banding = 0;
        fe.buttonDown = 0;
    }
    p.view = view;
    p.mount = mount;
    fe.view = view;
    ++fe.generation;
}

bool InsetVisible(const PortFisheye& fe)
{
    return fe.keepAliveSec == 0 || PLAT_TickMs() - fe.lastMouseMs < fe.keepAliveSec * 1000;
}

} // namespace

void Fisheye_SetStreamParams(PortFisheye* fe, uint16_t cx, uint16_t cy, uint16_t radius)
{
    std::lock_guard<std::mutex> lock(fe->lock);
    if (fe->streamLensSet && fe->streamLens[0] == cx && fe->streamLens[1] == cy && fe->streamLens[2] == radius) {
        return;
    }
    fe->streamLens[0] = cx;
    fe->streamLens[1] = cy;
    fe->streamLens[2] = radius;
    fe->streamLensSet = 1;
    ++fe->generation;
}

bool FE_ViewActive(const PortFisheye& fe)
{
    return fe.view.load() != FE_VIEW_OFF;
}

uint32_t FE_FishEyeWork(PortFisheye& fe, const QUEUE_PICTURE_NODE* in, const QUEUE_PICTURE_NODE** out)
{
    const uint32_t w = in->width, h = in->height;
    if (w < 4 || h < 4) {
        return KORVALEN_ERR_FISHEYE_WORK;
    }
    FE_VIEW_PARAMS want;
    uint32_t generation;
    bool band = false;
    FE_RECTF bandRect;
    {
        std::lock_guard<std::mutex> lock(fe.lock);
        const uint32_t inset = fe.params.view == FE_VIEW_EPTZ && fe.params.regionSet && InsetVisible(fe) ? 1 : 0;
        if (inset != fe.params.inset) {
            fe.params.inset = inset;
            ++fe.generation;
        }
        want = fe.params;
        want.lens = LensFor(fe, w, h);
        generation = fe.generation;
        band = fe.banding != 0;
        bandRect = fe.band;
    }
    if (FE_IsFisheyeView(want.view) &&
        (want.lens.radius < 1 || want.lens.cx < 0 || want.lens.cy < 0 || want.lens.cx >= w || want.lens.cy >= h)) {
        return KORVALEN_ERR_FISHEYE_PARAM;
    }
    FE_REMAP& m = fe.remap;
    const uint32_t pitch[3] = {in->lineSizes[0], in->lineSizes[1], in->lineSizes[2]};
    if (generation != fe.builtGeneration || m.srcW != w || m.srcH != h || m.srcPitch[0] != pitch[0] ||
        m.srcPitch[1] != pitch[1] || m.srcPitch[2] != pitch[2]) {
        uint32_t ow = 0, oh = 0;
        FE_OutputSize(want.view, w, h, &ow, &oh);
        uint32_t err = FE_BuildRemap(&m, want, w, h, pitch, ow, oh);
        if (err != KORVALEN_OK) {
            fe.builtGeneration = 0;
            return err == KORVALEN_ERR_NO_MEMORY ? KORVALEN_ERR_FISHEYE_INIT : KORVALEN_ERR_FISHEYE_WORK;
        }
        fe.builtGeneration = generation;
        fe.built = want;
    }
    const uint8_t* src[3] = {in->planes[0], in->planes[1], in->planes[2]};
    FE_ApplyRemap(&m, src);

    // Electronic PTZ: the zoomed part framed in the overview, or the
    // rectangle being drawn on the whole picture.
    const FE_VIEW_PARAMS& v = fe.built;
    if (v.view == FE_VIEW_EPTZ) {
        const double sx = static_cast<double>(m.outW) / w, sy = static_cast<double>(m.outH) / h;
        if (band && !v.regionSet) {
            const double r[4] = {bandRect.left * sx, bandRect.top * sy, bandRect.right * sx, bandRect.bottom * sy};
            FE_DrawFrame(&m, r, kFrameThickness);
        } else if (v.regionSet && v.inset) {
            double in4[4];
            FE_InsetRect(m.outW, m.outH, in4);
            const double border[4] = {in4[0] - kInsetBorder, in4[1] - kInsetBorder, in4[2] + kInsetBorder,
                                      in4[3] + kInsetBorder};
            FE_DrawFrame(&m, border, 1);
            const double ix = (in4[2] - in4[0]) / w, iy = (in4[3] - in4[1]) / h;
            const double r[4] = {in4[0] + v.region.left * ix, in4[1] + v.region.top * iy, in4[0] + v.region.right * ix,
                                 in4[1] + v.region.bottom * iy};
            FE_DrawFrame(&m, r, 1);
        }
    }
    QUEUE_PICTURE_NODE& o = fe.out;
    for (int p = 0; p < 3; ++p) {
        o.planes[p] = m.planes[p];
        o.lineSizes[p] = m.pitches[p];
    }
    o.width = m.outW;
    o.height = m.outH;
    o.presentation = in->presentation;
    o.attribute = in->attribute;
    *out = &o;
    std::lock_guard<std::mutex> lock(fe.lock);
    fe.srcW = w;
    fe.srcH = h;
    fe.outW = m.outW;
    fe.outH = m.outH;
    return KORVALEN_OK;
}

void FE_NoteShown(PortFisheye& fe, const DISP_RECT& dest)
{
    std::lock_guard<std::mutex> lock(fe.lock);
    fe.shown = dest;
}

void FE_WindowToOutput(const PortFisheye& fe, uint32_t x, uint32_t y, double* ox, double* oy)
{
    if (fe.shown.Empty() || fe.outW == 0) {
        *ox = x; // nothing shown in a window yet: window pixels are picture pixels
        *oy = y;
        return;
    }
    *ox = (static_cast<double>(x) - fe.shown.left) * fe.outW / fe.shown.Width();
    *oy = (static_cast<double>(y) - fe.shown.top) * fe.outH / fe.shown.Height();
}

uint32_t FE_IsFishEyeStream(PortFisheye& fe, uint32_t* answer)
{
    std::lock_guard<std::mutex> lock(fe.lock);
    *answer = IsFisheye(fe) ? 1 : 0;
    return KORVALEN_OK;
}

uint32_t FE_GetFishEyeParam(PortFisheye& fe, uint32_t w, uint32_t h, KORVALEN_FISHEYE_STATE* state,
                            KORVALEN_POINT* center, uint32_t* radius)
{
    std::lock_guard<std::mutex> lock(fe.lock);
    if (!IsFisheye(fe)) {
        return KORVALEN_ERR_FISHEYE_STATE;
    }
    if (!fe.streamLensSet && (w == 0 || h == 0)) {
        return KORVALEN_ERR_FISHEYE_STATE; // no picture yet to take the circle from
    }
    const FE_LENS lens = LensFor(fe, w, h);
    center->x = static_cast<int32_t>(std::lround(lens.cx));
    center->y = static_cast<int32_t>(std::lround(lens.cy));
    *radius = static_cast<uint32_t>(std::lround(lens.radius));
    if (state) {
        state->mount_mode = fe.params.mount;
        state->correct_mode = fe.params.view;
        state->width = w;
        state->height = h;
    }
    return KORVALEN_OK;
}

uint32_t FE_SetPtzAndFixMode(PortFisheye& fe, uint32_t ptzMode, uint32_t fixMode)
{
    if (ptzMode >= FE_VIEW_COUNT || fixMode >= FE_MOUNT_COUNT) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!FE_ViewFitsMount(ptzMode, fixMode)) {
        return KORVALEN_ERR_FISHEYE_PARAM;
    }
    std::lock_guard<std::mutex> lock(fe.lock);
    if (FE_IsFisheyeView(ptzMode)) {
        fe.callerMarked = 1;
    }
    ResetView(fe, ptzMode, fixMode);
    return KORVALEN_OK;
}

uint32_t FE_GetPtzAndFixMode(PortFisheye& fe, uint32_t* ptzMode, uint32_t* fixMode)
{
    std::lock_guard<std::mutex> lock(fe.lock);
    *ptzMode = fe.params.view;
    *fixMode = fe.params.mount;
    return KORVALEN_OK;
}

uint32_t FE_SetPtzDisplayMode(PortFisheye& fe, uint32_t ptzMode)
{
    if (ptzMode >= FE_VIEW_COUNT) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(fe.lock);
    if (FE_IsFisheyeView(ptzMode) && !IsFisheye(fe)) {
        return KORVALEN_ERR_FISHEYE_STATE;
    }
    if (!FE_ViewFitsMount(ptzMode, fe.params.mount)) {
        return KORVALEN_ERR_FISHEYE_PARAM;
    }
    ResetView(fe, ptzMode, fe.params.mount);
    return KORVALEN_OK;
}

uint32_t FE_SetPtzKeepAliveTime(PortFisheye& fe, uint32_t seconds)
{
    std::lock_guard<std::mutex> lock(fe.lock);
    fe.keepAliveSec = seconds;
    fe.lastMouseMs = PLAT_TickMs();
    return KORVALEN_OK;
}
