#include "iva/iva_port.h"

#include <cairo.h>

#include "korvalen_types.h"
#include "log/log.h"
#include "queue/queue_picture.h"

namespace {

// Process-wide display switches and the mode that lets ports decide.
std::atomic<uint32_t> g_show{IVA_SHOW_UNTRACKED | IVA_SHOW_TRACKED};
std::atomic<uint32_t> g_mode{0};

constexpr uint32_t kAttachSlot = 0; // the picture's attached object that carries the overlay

void ReleaseSnapshot(void* data)
{
    static_cast<IVA_SNAPSHOT*>(data)->busy.store(0, std::memory_order_release);
}

IVA_SNAPSHOT* TakeSnapshot(PortIva& iva)
{
    for (IVA_SNAPSHOT& s : iva.snapshots) {
        uint32_t free = 0;
        if (s.busy.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
            return &s;
        }
    }
    return nullptr;
}

void ReleaseSurface(IVA_SURFACE& s)
{
    if (s.cr) {
        cairo_destroy(s.cr);
        s.cr = nullptr;
    }
    if (s.surface) {
        cairo_surface_destroy(s.surface);
        s.surface = nullptr;
    }
    s.pixels = nullptr;
}

void ReleaseSurfaces(IVA_PAINT_JOB& job)
{
    for (IVA_SURFACE& s : job.surfaces) {
        ReleaseSurface(s);
    }
    job.current = nullptr;
    job.canvas.cr = nullptr;
}

bool Matches(const IVA_SURFACE& s, const DISP_CANVAS& c)
{
    return s.cr && s.pixels == c.pixels && s.size[0] == c.width && s.size[1] == c.height && s.size[2] == c.stride;
}

// The surface on the canvas's image: a kept one, or a new one in place of
// the one least recently made.
IVA_SURFACE* SurfaceFor(IVA_PAINT_JOB& job, const DISP_CANVAS& c)
{
    for (IVA_SURFACE& s : job.surfaces) {
        if (Matches(s, c)) {
            return &s;
        }
    }
    IVA_SURFACE& s = job.surfaces[job.replace];
    job.replace = (job.replace + 1) % IVA_SURFACES;
    ReleaseSurface(s);
    s.surface = cairo_image_surface_create_for_data(c.pixels, CAIRO_FORMAT_RGB24, static_cast<int>(c.width),
                                                    static_cast<int>(c.height), static_cast<int>(c.stride));
    s.cr = cairo_create(s.surface);
    if (cairo_status(s.cr) != CAIRO_STATUS_SUCCESS) {
        ReleaseSurface(s);
        return nullptr;
    }
    s.pixels = c.pixels;
    s.size[0] = c.width;
    s.size[1] = c.height;
    s.size[2] = c.stride;
    return &s;
}

// Points the job's Cairo context at the canvas and sets the
// picture-to-image mapping.
bool Begin(IVA_PAINT_JOB& job, const DISP_CANVAS& c)
{
    if (!job.store || c.source.Empty() || c.width == 0 || c.height == 0) {
        return false;
    }
    job.current = SurfaceFor(job, c);
    job.canvas.cr = job.current ? job.current->cr : nullptr;
    if (!job.current) {
        return false;
    }
    // The overlay is painted on the picture and goes wherever the picture
    // goes: scaled, letter-boxed or zoomed with it.
    if (IVA_GetDrawRect(c.pictureWidth, c.pictureHeight, c.pictureWidth, c.pictureHeight, 1, job.scaleMode,
                        &job.canvas.drawRect) != 0) {
        return false;
    }
    job.canvas.originX = c.source.left;
    job.canvas.originY = c.source.top;
    job.canvas.scaleX = static_cast<double>(c.width) / c.source.Width();
    job.canvas.scaleY = static_cast<double>(c.height) / c.source.Height();
    job.canvas.osdStyle = job.osdStyle;
    return true;
}

uint32_t PaintRules(void* user, const DISP_CANVAS& c)
{
    auto& job = *static_cast<IVA_PAINT_JOB*>(user);
    if (!Begin(job, c)) {
        return 0;
    }
    uint32_t err = DrawRule_V2(job.store, &job.canvas);
    cairo_surface_flush(job.current->surface);
    return err;
}

uint32_t PaintTargets(void* user, const DISP_CANVAS& c)
{
    auto& job = *static_cast<IVA_PAINT_JOB*>(user);
    if (!Begin(job, c)) {
        return 0;
    }
    uint32_t err = DATA_DRVDraw(job.store, &job.canvas, job.tracks, job.show, job.tracking);
    cairo_surface_flush(job.current->surface);
    return err;
}

} // namespace

PortIva::~PortIva()
{
    ReleaseSurfaces(job);
    Sei_ReleaseInfo(&sei);
    IVA_ReleaseStore(&latest);
    for (IVA_STORE& s : byInput) {
        IVA_ReleaseStore(&s);
    }
    for (IVA_SNAPSHOT& s : snapshots) {
        IVA_ReleaseStore(&s.store);
    }
}

bool IVA_ParseFrame(PortIva& iva, const uint8_t* data, uint32_t length, uint32_t codec)
{
    IVA_AttachStore(&iva.sei, &iva.latest);
    Sei_Parse(codec, data, length, &iva.sei);
    if (iva.sei.flags & SEI_FLAG_FISHEYE) {
        {
            std::lock_guard<std::mutex> lock(iva.fisheyeLock);
            iva.fisheyeSeen = 1;
            for (int i = 0; i < 3; ++i) {
                iva.fisheye[i] = iva.sei.fisheyeParams[i];
            }
        }
        return true;
    }
    return false;
}

void IVA_FrameDecoded(PortIva& iva, const CODE_HANDLE& h)
{
    if (iva.enable.load()) {
        // Decoders hold pictures back (reordering, frame threads): the store
        // is kept per input so that each picture gets its own frame's records.
        IVA_CopyStore(&iva.byInput[h.inIndex % CODE_MARK_RING], &iva.latest);
    }
}

void IVA_AttachOverlay(PortIva& iva, const CODE_HANDLE& h, QUEUE_ATTACHED* attach)
{
    if (!iva.enable.load()) {
        return;
    }
    IVA_SNAPSHOT* snap = TakeSnapshot(iva);
    if (!snap) {
        return;
    }
    if (IVA_CopyStore(&snap->store, &iva.byInput[h.outIndex % CODE_MARK_RING]) != KORVALEN_OK) {
        ReleaseSnapshot(snap);
        return;
    }
    attach[kAttachSlot].data = snap;
    attach[kAttachSlot].release = &ReleaseSnapshot;
}

void IVA_PrepareOverlay(PortIva& iva, uint32_t osdStyle, const QUEUE_PICTURE_NODE* node, DISP_SETTINGS* settings)
{
    const QUEUE_ATTACHED& a = node->attached[kAttachSlot];
    if (!iva.enable.load() || a.release != &ReleaseSnapshot || !a.data) {
        return;
    }
    IVA_PAINT_JOB& job = iva.job;
    job.store = &static_cast<const IVA_SNAPSHOT*>(a.data)->store;
    job.scaleMode = settings->scaleMode;
    job.osdStyle = osdStyle;
    const uint32_t global = g_show.load();
    job.show = g_mode.load() == 1 ? iva.show.load() : global;
    job.tracking = (global & IVA_SHOW_UNTRACKED) != 0;
    job.tracks = &iva.tracks;
    settings->drawRules = &PaintRules;
    settings->drawTargets = &PaintTargets;
    settings->overlayUser = &job;
}

uint32_t IVA_GetFisheyeParam(PortIva& iva, uint16_t params[3])
{
    std::lock_guard<std::mutex> lock(iva.fisheyeLock);
    if (!iva.fisheyeSeen) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    for (int i = 0; i < 3; ++i) {
        params[i] = iva.fisheye[i];
    }
    return KORVALEN_OK;
}

void IVA_SetShow(uint32_t showParam)
{
    g_show.store(showParam & IVA_SHOW_MASK);
}

void IVA_SetPortShow(PortIva* iva, uint32_t showParam, uint32_t mode)
{
    if (iva) {
        iva->show.store(showParam & IVA_SHOW_MASK);
    }
    g_mode.store(mode);
}
