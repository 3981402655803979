#include "display/x11_display.h"

#include <cstdlib>
#include <mutex>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>

#include "display/x11_connection.h"
#include "heap/qmx_heap.h"
#include "log/log.h"

namespace {

constexpr uint32_t kBlitLogLimit = 3;
constexpr uint32_t kOddSizeLogEvery = 1000;

bool Lost(int err)
{
    return err == BadWindow || err == BadDrawable || err == BadImplementation;
}

void FillBars(Display* dpy, Window w, GC gc, const DISP_RECT& client, const DISP_RECT& d)
{
    auto fill = [&](int x, int y, int cw, int ch) {
        if (cw > 0 && ch > 0) {
            XFillRectangle(dpy, w, gc, x, y, static_cast<unsigned>(cw), static_cast<unsigned>(ch));
        }
    };
    fill(0, 0, client.right, d.top);                           // above
    fill(0, d.bottom, client.right, client.bottom - d.bottom); // below
    fill(0, d.top, d.left, d.Height());                        // left
    fill(d.right, d.top, client.right - d.right, d.Height());  // right
}

// What one display takes from the connection's event queue, which the
// displays of every port on the connection share.
struct Interest {
    Window window;
    int completion; // ShmCompletion event type, 0 without MIT-SHM
    ShmSeg segs[2];
};

Bool IsOurs(Display*, XEvent* ev, XPointer arg)
{
    const auto* in = reinterpret_cast<const Interest*>(arg);
    if (in->completion != 0 && ev->type == in->completion) {
        const ShmSeg seg = reinterpret_cast<const XShmCompletionEvent*>(ev)->shmseg;
        return seg != 0 && (seg == in->segs[0] || seg == in->segs[1]);
    }
    // Every structure event of the window: those we have no use for
    // (mapping, reparenting...) must not pile up in the queue either.
    return ev->xany.window == in->window;
}

} // namespace

CX11Display::~CX11Display()
{
    ReleaseSurfaces();
    if (m_conn) {
        {
            std::lock_guard<std::mutex> lock(m_conn->lock);
            // After the connection failed, Xlib may still hold its own lock
            // on it from the failing call: any further call would block.
            if (m_gc && !m_conn->dead) {
                XFreeGC(m_conn->dpy, static_cast<GC>(m_gc));
                if (!m_gone) {
                    XSelectInput(m_conn->dpy, m_window, NoEventMask);
                }
                X11_Sync(m_conn);
                Drain(); // nobody else would take our window's events
            }
        }
        X11_Release(m_conn);
    }
}

uint32_t CX11Display::Init(uint64_t window)
{
    m_conn = X11_Acquire(m_displayName.empty() ? nullptr : m_displayName.c_str());
    if (!m_conn) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::Init: Failed to Create DDraw 0x%x.", 0u);
        return KORVALEN_ERR_OUTPUT_CREATE;
    }
    std::lock_guard<std::mutex> lock(m_conn->lock);
    const unsigned long from = X11_NextSerial(m_conn);
    // Our own interest in the window: its size and its end come as events,
    // so no picture waits on a question to the server. Asked before the
    // size is read, so no change falls between the two.
    XSelectInput(m_conn->dpy, static_cast<Window>(window), StructureNotifyMask);
    XWindowAttributes a{};
    const Status ok = XGetWindowAttributes(m_conn->dpy, static_cast<Window>(window), &a);
    int err = X11_TakeError(m_conn, from, X11_NextSerial(m_conn));
    if (err != 0 || !ok) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::Init: Failed to Set windows handle 0x%x.", static_cast<unsigned>(err));
        return KORVALEN_ERR_OUTPUT_CREATE;
    }
    m_visual = a.visual;
    m_depth = a.depth;
    m_client = DISP_RECT{0, 0, a.width, a.height};
    XGCValues v{};
    v.foreground = BlackPixel(m_conn->dpy, DefaultScreen(m_conn->dpy));
    m_gc = XCreateGC(m_conn->dpy, static_cast<Window>(window), GCForeground, &v);
    m_window = static_cast<unsigned long>(window);
    return 0;
}

void CX11Display::FreeImageLocked(Image& img)
{
    if (!img.image) {
        return;
    }
    auto* info = static_cast<XShmSegmentInfo*>(img.shm);
    if (info) {
        // The detach is handled after any put still reading the image.
        if (!m_conn->dead) {
            XShmDetach(m_conn->dpy, info);
            XSync(m_conn->dpy, False);
            Drain(); // its completion, if any, is in the queue now
        }
        shmdt(info->shmaddr);
        delete info;
        img.shm = nullptr;
    } else {
        QMX_HeapFree(img.image->data);
    }
    img.image->data = nullptr;
    XDestroyImage(img.image);
    img.image = nullptr;
    img.reading = false;
}

void CX11Display::FreeImagesLocked()
{
    FreeImageLocked(m_images[0]);
    FreeImageLocked(m_images[1]);
}

void CX11Display::ReleaseSurfaces()
{
    if (m_conn) {
        std::lock_guard<std::mutex> lock(m_conn->lock);
        FreeImagesLocked();
    }
}

uint32_t CX11Display::SurfaceLostLocked()
{
    FreeImagesLocked();
    m_repaint = true;
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDDrawDisplay::RendSurface fail, surface lost");
    return KORVALEN_ERR_SURFACE_LOST;
}

bool CX11Display::EnsureImage(Image& out, int w, int h)
{
    if (out.image && out.image->width == w && out.image->height == h) {
        return true;
    }
    FreeImageLocked(out);
    Display* dpy = m_conn->dpy;
    auto* visual = static_cast<Visual*>(m_visual);
    const auto depth = static_cast<unsigned>(m_depth);
    if (m_conn->hasShm) {
        auto* info = new XShmSegmentInfo{};
        XImage* img = XShmCreateImage(dpy, visual, depth, ZPixmap, nullptr, info, static_cast<unsigned>(w),
                                      static_cast<unsigned>(h));
        if (img) {
            info->shmid = shmget(IPC_PRIVATE, static_cast<size_t>(img->bytes_per_line) * h, IPC_CREAT | 0600);
            info->shmaddr = info->shmid >= 0 ? static_cast<char*>(shmat(info->shmid, nullptr, 0)) : nullptr;
            bool attached = false;
            if (info->shmaddr && info->shmaddr != reinterpret_cast<char*>(-1)) {
                img->data = info->shmaddr;
                info->readOnly = False;
                const unsigned long from = X11_NextSerial(m_conn);
                XShmAttach(dpy, info);
                X11_Sync(m_conn);
                attached = X11_TakeError(m_conn, from, X11_NextSerial(m_conn)) == 0;
            }
            if (info->shmid >= 0) {
                shmctl(info->shmid, IPC_RMID, nullptr); // freed once both sides let go
            }
            if (attached && img->bits_per_pixel == 32) {
                out.image = img;
                out.shm = info;
                return true;
            }
            if (info->shmaddr && info->shmaddr != reinterpret_cast<char*>(-1)) {
                shmdt(info->shmaddr);
            }
            img->data = nullptr;
            XDestroyImage(img);
        }
        delete info;
        m_conn->hasShm = false; // a server that cannot share gets plain puts from now on
    }
    XImage* img = XCreateImage(dpy, visual, depth, ZPixmap, 0, nullptr, static_cast<unsigned>(w),
                               static_cast<unsigned>(h), 32, 0);
    if (!img || img->bits_per_pixel != 32) {
        if (img) {
            XDestroyImage(img);
        }
        return false;
    }
    img->data = static_cast<char*>(QMX_HeapMalloc(static_cast<size_t>(img->bytes_per_line) * h));
    if (!img->data) {
        XDestroyImage(img);
        return false;
    }
    out.image = img;
    return true;
}

uint32_t CX11Display::Convert(Image& img, const DISP_PICTURE& pic, const DISP_RECT& src, const int32_t adjust[4],
                              const DISP_RECT& dest)
{
    const int w = dest.Width(), h = dest.Height();
    if (!img.image || img.image->width != w || img.image->height != h) {
        std::lock_guard<std::mutex> lock(m_conn->lock);
        if (m_conn->dead) {
            return SurfaceLostLocked();
        }
        if (!EnsureImage(img, w, h)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::Render: Failed to create Off Screen Surface 0x%x.(%d,%d)",
                         static_cast<unsigned>(KORVALEN_ERR_OUTPUT_CREATE), w, h);
            return KORVALEN_ERR_OUTPUT_CREATE;
        }
    }
    // Into our own image memory: no X call, no lock.
    return m_convert.ToBgra(pic, src, adjust, reinterpret_cast<uint8_t*>(img.image->data), img.image->bytes_per_line, w,
                            h);
}

void CX11Display::Drain()
{
    Interest in{m_window, m_conn->shmCompletion, {0, 0}};
    for (int i = 0; i < 2; ++i) {
        if (m_images[i].shm && m_images[i].reading) {
            in.segs[i] = static_cast<XShmSegmentInfo*>(m_images[i].shm)->shmseg;
        }
    }
    XEvent ev;
    while (XCheckIfEvent(m_conn->dpy, &ev, &IsOurs, reinterpret_cast<XPointer>(&in))) {
        if (ev.type == ConfigureNotify) {
            m_client = DISP_RECT{0, 0, ev.xconfigure.width, ev.xconfigure.height};
        } else if (ev.type == DestroyNotify) {
            m_gone = true;
        } else {
            const ShmSeg seg = reinterpret_cast<const XShmCompletionEvent*>(&ev)->shmseg;
            for (int i = 0; i < 2; ++i) {
                if (in.segs[i] == seg) {
                    m_images[i].reading = false;
                    in.segs[i] = 0;
                }
            }
        }
    }
    // A put that failed never completes: its error ends it instead.
    for (Image& img : m_images) {
        const int err = img.to != 0 ? X11_TakeError(m_conn, img.from, img.to) : 0;
        if (err != 0) {
            img.reading = false;
            m_putError = m_putError != 0 ? m_putError : err;
        }
        if (!img.reading) {
            img.from = img.to = 0;
        }
    }
}

uint32_t CX11Display::TakeNews(DISP_RECT* client)
{
    if (m_conn->dead) {
        return SurfaceLostLocked();
    }
    Drain();
    Image& next = m_images[m_turn];
    if (next.reading) {
        // The server is a whole picture behind: wait for it.
        X11_Sync(m_conn);
        Drain();
        next.reading = false; // every request was handled, whatever came of it
    }
    const int err = m_putError;
    m_putError = 0;
    if (err != 0) {
        if (m_blitFailures++ < kBlitLogLimit) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::RendSurface: first Blt operation Failed 0x%x.",
                         static_cast<unsigned>(err));
        }
        m_repaint = true;
    }
    if (m_gone || Lost(err) || m_conn->dead) {
        return SurfaceLostLocked();
    }
    *client = m_client;
    return 0;
}

uint32_t CX11Display::Put(Image& img, const DISP_RECT& client, const DISP_RECT& dest)
{
    std::lock_guard<std::mutex> lock(m_conn->lock);
    if (m_conn->dead) {
        return SurfaceLostLocked();
    }
    Display* dpy = m_conn->dpy;
    GC gc = static_cast<GC>(m_gc);
    img.from = X11_NextSerial(m_conn);
    if (m_repaint || dest.left != m_lastDest.left || dest.top != m_lastDest.top || dest.right != m_lastDest.right ||
        dest.bottom != m_lastDest.bottom) {
        FillBars(dpy, m_window, gc, client, dest);
        m_lastDest = dest;
        m_repaint = false;
    }
    const auto w = static_cast<unsigned>(dest.Width()), h = static_cast<unsigned>(dest.Height());
    if (img.shm) {
        // Not waited for: the server copies this picture while the next one
        // is converted into the other image, and says when it is done.
        XShmPutImage(dpy, m_window, gc, img.image, 0, 0, dest.left, dest.top, w, h, True);
        img.reading = true;
        XFlush(dpy);
    } else {
        // The pixels went out with the request; a remote server is waited for.
        XPutImage(dpy, m_window, gc, img.image, 0, 0, dest.left, dest.top, w, h);
        X11_Sync(m_conn);
    }
    img.to = X11_NextSerial(m_conn);
    m_turn ^= 1u;
    return 0;
}

uint32_t CX11Display::Show(const DISP_PICTURE& pic, const DISP_SETTINGS& s)
{
    if (!m_conn || m_conn->dead) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDDrawDisplay::RendSurface fail, surface lost");
        return KORVALEN_ERR_SURFACE_LOST;
    }
    DISP_RECT client;
    {
        std::lock_guard<std::mutex> lock(m_conn->lock);
        uint32_t err = TakeNews(&client);
        if (err != 0) {
            return err;
        }
    }
    const DISP_RECT dest = DISP_DestRect(client, pic.width, pic.height, s.scaleMode);
    if (dest.Empty()) {
        std::lock_guard<std::mutex> lock(m_conn->lock);
        FreeImagesLocked(); // minimised: nothing to show, nothing to keep
        return 0;
    }
    if (DISP_SurfaceSizeOdd(pic.width, pic.height) && m_oddSizeCount++ % kOddSizeLogEvery == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "DDRAW::DirectXCreateOffScreen: Exceed Threshold, Width %d Height %d.",
                     pic.width, pic.height);
    }
    const DISP_RECT src = DISP_SourceRect(s.zoomOn ? &s.zoom : nullptr, pic.width, pic.height);
    Image& img = m_images[m_turn];
    uint32_t err = Convert(img, pic, src, s.adjust, dest);
    if (err != 0) {
        return err;
    }
    auto* pixels = reinterpret_cast<uint8_t*>(img.image->data);
    const auto stride = static_cast<uint32_t>(img.image->bytes_per_line);
    const auto w = static_cast<uint32_t>(dest.Width()), h = static_cast<uint32_t>(dest.Height());
    DISP_PaintOverlays(s, DISP_CANVAS{pixels, stride, w, h, src, pic.width, pic.height});
    KORVALEN_DRAW_CB draw = s.draw ? s.draw : m_draw;
    if (draw) {
        KORVALEN_DRAW_SURFACE surface{pixels, stride, w, h, m_window};
        draw(s.port, &surface, s.draw ? s.drawUser : m_drawUser, 0);
    }
    return Put(img, client, dest);
}

uint32_t CX11Display::DisplayPic(const DISP_PICTURE& pic, const DISP_SETTINGS& settings)
{
    return Show(pic, settings);
}

uint32_t CX11Display::RenderPicture(const DISP_PICTURE& pic)
{
    DISP_SETTINGS plain;
    return Show(pic, plain);
}
