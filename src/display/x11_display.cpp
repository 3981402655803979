#include "display/x11_display.h"

#include <cstdlib>
#include <mutex>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>

#include "display/x11_connection.h"
#include "log/log.h"
#include "platform/qmx_heap.h"

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
    XWindowAttributes a;
    XGetWindowAttributes(m_conn->dpy, static_cast<Window>(window), &a);
    int err = X11_TakeError(m_conn);
    if (err != 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::Init: Failed to Set windows handle 0x%x.", static_cast<unsigned>(err));
        return KORVALEN_ERR_OUTPUT_CREATE;
    }
    XGCValues v{};
    v.foreground = BlackPixel(m_conn->dpy, DefaultScreen(m_conn->dpy));
    m_gc = XCreateGC(m_conn->dpy, static_cast<Window>(window), GCForeground, &v);
    m_window = static_cast<unsigned long>(window);
    return 0;
}

void CX11Display::FreeImageLocked()
{
    if (!m_image) {
        return;
    }
    auto* info = static_cast<XShmSegmentInfo*>(m_shm);
    if (info) {
        if (!m_conn->dead) {
            XShmDetach(m_conn->dpy, info);
            XSync(m_conn->dpy, False);
        }
        shmdt(info->shmaddr);
        delete info;
        m_shm = nullptr;
        m_image->data = nullptr;
    } else {
        QMX_HeapFree(m_image->data);
        m_image->data = nullptr;
    }
    XDestroyImage(m_image);
    m_image = nullptr;
}

void CX11Display::ReleaseSurfaces()
{
    if (m_conn) {
        std::lock_guard<std::mutex> lock(m_conn->lock);
        FreeImageLocked();
    }
}

bool CX11Display::EnsureImage(int w, int h)
{
    if (m_image && m_image->width == w && m_image->height == h) {
        return true;
    }
    FreeImageLocked();
    Display* dpy = m_conn->dpy;
    XWindowAttributes a;
    XGetWindowAttributes(dpy, m_window, &a);
    if (m_conn->hasShm) {
        auto* info = new XShmSegmentInfo{};
        XImage* img = XShmCreateImage(dpy, a.visual, static_cast<unsigned>(a.depth), ZPixmap, nullptr, info,
                                      static_cast<unsigned>(w), static_cast<unsigned>(h));
        if (img) {
            info->shmid = shmget(IPC_PRIVATE, static_cast<size_t>(img->bytes_per_line) * h, IPC_CREAT | 0600);
            info->shmaddr = info->shmid >= 0 ? static_cast<char*>(shmat(info->shmid, nullptr, 0)) : nullptr;
            bool attached = false;
            if (info->shmaddr && info->shmaddr != reinterpret_cast<char*>(-1)) {
                img->data = info->shmaddr;
                info->readOnly = False;
                XShmAttach(dpy, info);
                attached = X11_TakeError(m_conn) == 0;
            }
            if (info->shmid >= 0) {
                shmctl(info->shmid, IPC_RMID, nullptr); // freed once both sides let go
            }
            if (attached && img->bits_per_pixel == 32) {
                m_image = img;
                m_shm = info;
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
    XImage* img = XCreateImage(dpy, a.visual, static_cast<unsigned>(a.depth), ZPixmap, 0, nullptr,
                               static_cast<unsigned>(w), static_cast<unsigned>(h), 32, 0);
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
    m_image = img;
    return true;
}

uint32_t CX11Display::Show(const DISP_PICTURE& pic, const DISP_SETTINGS& s)
{
    if (!m_conn || m_conn->dead) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDDrawDisplay::RendSurface fail, surface lost");
        return KORVALEN_ERR_SURFACE_LOST;
    }
    DISP_RECT client, dest;
    {
        std::lock_guard<std::mutex> lock(m_conn->lock);
        XWindowAttributes a;
        XGetWindowAttributes(m_conn->dpy, m_window, &a);
        if (Lost(X11_TakeError(m_conn))) {
            FreeImageLocked();
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDDrawDisplay::RendSurface fail, surface lost");
            return KORVALEN_ERR_SURFACE_LOST;
        }
        client = DISP_RECT{0, 0, a.width, a.height};
        dest = DISP_DestRect(client, pic.width, pic.height, s.scaleMode);
        if (dest.Empty()) {
            FreeImageLocked(); // minimised: nothing to show, nothing to keep
            return 0;
        }
        if (DISP_SurfaceSizeOdd(pic.width, pic.height) && m_oddSizeCount++ % kOddSizeLogEvery == 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "DDRAW::DirectXCreateOffScreen: Exceed Threshold, Width %d Height %d.",
                         pic.width, pic.height);
        }
        if (!EnsureImage(dest.Width(), dest.Height())) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::Render: Failed to create Off Screen Surface 0x%x.(%d,%d)",
                         static_cast<unsigned>(KORVALEN_ERR_OUTPUT_CREATE), dest.Width(), dest.Height());
            return KORVALEN_ERR_OUTPUT_CREATE;
        }
    }

    // The picture is converted into our own image memory: no X call, no lock.
    DISP_RECT src = DISP_SourceRect(s.zoomOn ? &s.zoom : nullptr, pic.width, pic.height);
    auto* pixels = reinterpret_cast<uint8_t*>(m_image->data);
    uint32_t err = m_convert.ToBgra(pic, src, s.adjust, pixels, m_image->bytes_per_line, dest.Width(), dest.Height());
    if (err != 0) {
        return err;
    }
    DISP_PaintOverlays(s, DISP_CANVAS{pixels, static_cast<uint32_t>(m_image->bytes_per_line),
                                      static_cast<uint32_t>(dest.Width()), static_cast<uint32_t>(dest.Height()), src,
                                      pic.width, pic.height});
    KORVALEN_DRAW_CB draw = s.draw ? s.draw : m_draw;
    if (draw) {
        KORVALEN_DRAW_SURFACE surface{pixels, static_cast<uint32_t>(m_image->bytes_per_line),
                                      static_cast<uint32_t>(dest.Width()), static_cast<uint32_t>(dest.Height()),
                                      m_window};
        draw(s.port, &surface, s.draw ? s.drawUser : m_drawUser, 0);
    }

    std::lock_guard<std::mutex> lock(m_conn->lock);
    if (m_conn->dead) {
        return KORVALEN_ERR_SURFACE_LOST;
    }
    Display* dpy = m_conn->dpy;
    GC gc = static_cast<GC>(m_gc);
    if (m_repaint || dest.left != m_lastDest.left || dest.top != m_lastDest.top || dest.right != m_lastDest.right ||
        dest.bottom != m_lastDest.bottom) {
        FillBars(dpy, m_window, gc, client, dest);
        m_lastDest = dest;
        m_repaint = false;
    }
    if (m_shm) {
        XShmPutImage(dpy, m_window, gc, m_image, 0, 0, dest.left, dest.top, static_cast<unsigned>(dest.Width()),
                     static_cast<unsigned>(dest.Height()), False);
    } else {
        XPutImage(dpy, m_window, gc, m_image, 0, 0, dest.left, dest.top, static_cast<unsigned>(dest.Width()),
                  static_cast<unsigned>(dest.Height()));
    }
    // Waiting for the server also means it is done reading the shared image.
    int xerr = X11_TakeError(m_conn);
    if (xerr != 0) {
        if (m_blitFailures++ < kBlitLogLimit) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "DDRAW::RendSurface: first Blt operation Failed 0x%x.",
                         static_cast<unsigned>(xerr));
        }
        m_repaint = true;
        if (Lost(xerr)) {
            FreeImageLocked();
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CDDrawDisplay::RendSurface fail, surface lost");
            return KORVALEN_ERR_SURFACE_LOST;
        }
        return static_cast<uint32_t>(xerr);
    }
    return 0;
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
