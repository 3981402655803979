#include "display/x11_connection.h"

#include <X11/Xlib.h>
#include <X11/extensions/XShm.h>
#include <atomic>

#include "log/log.h"

namespace {

constexpr size_t kMaxConns = 64;
std::mutex g_connsLock; // opening and releasing
// Open connections, read lock-free by the error handlers (which run inside
// Xlib calls, where taking g_connsLock could deadlock with a release).
std::atomic<X11Conn*> g_conns[kMaxConns];
XErrorHandler g_prevError = nullptr;
XIOErrorHandler g_prevIoError = nullptr;
bool g_handlersSet = false;

X11Conn* Find(Display* dpy)
{
    for (auto& slot : g_conns) {
        X11Conn* c = slot.load();
        if (c && c->dpy == dpy) {
            return c;
        }
    }
    return nullptr;
}

// Called with the connection's lock held by the thread that made the call.
int OnXError(Display* dpy, XErrorEvent* ev)
{
    X11Conn* c = Find(dpy);
    if (!c) {
        return g_prevError ? g_prevError(dpy, ev) : 0;
    }
    c->errors[c->nextError] = X11Error{ev->serial, ev->error_code};
    c->nextError = (c->nextError + 1) % X11Conn::kErrorSlots;
    return 0;
}

int OnXIoError(Display* dpy)
{
    X11Conn* c = Find(dpy);
    if (!c) {
        return g_prevIoError ? g_prevIoError(dpy) : 0;
    }
    c->dead = true;
    return 0;
}

// Returning keeps the process alive; the connection is unusable from now on
// and the displays on it report their surface lost.
void OnXIoExit(Display*, void* user)
{
    static_cast<X11Conn*>(user)->dead = true;
}

} // namespace

X11Conn* X11_Acquire(const char* name)
{
    std::string key = name ? name : "";
    std::lock_guard<std::mutex> guard(g_connsLock);
    size_t freeSlot = kMaxConns;
    for (size_t i = 0; i < kMaxConns; ++i) {
        X11Conn* c = g_conns[i].load();
        if (!c) {
            freeSlot = freeSlot == kMaxConns ? i : freeSlot;
        } else if (c->name == key && !c->dead) {
            ++c->refs;
            return c;
        }
    }
    if (freeSlot == kMaxConns) {
        return nullptr;
    }
    if (!g_handlersSet) {
        XInitThreads();
        g_prevError = XSetErrorHandler(&OnXError);
        g_prevIoError = XSetIOErrorHandler(&OnXIoError);
        g_handlersSet = true;
    }
    Display* dpy = XOpenDisplay(name);
    if (!dpy) {
        return nullptr;
    }
    auto* c = new X11Conn;
    c->name = key;
    c->dpy = dpy;
    c->refs = 1;
    XSetIOErrorExitHandler(dpy, &OnXIoExit, c);
    int major = 0, minor = 0;
    Bool pixmaps = False;
    // A local server shares memory with us; a remote one gets plain puts.
    c->hasShm = XShmQueryVersion(dpy, &major, &minor, &pixmaps) == True;
    c->shmCompletion = c->hasShm ? XShmGetEventBase(dpy) + ShmCompletion : 0;
    g_conns[freeSlot].store(c);
    return c;
}

void X11_Release(X11Conn* conn)
{
    if (!conn) {
        return;
    }
    std::lock_guard<std::mutex> guard(g_connsLock);
    if (--conn->refs > 0) {
        return;
    }
    for (auto& slot : g_conns) {
        if (slot.load() == conn) {
            slot.store(nullptr);
        }
    }
    {
        std::lock_guard<std::mutex> lock(conn->lock);
        // A failed connection is left as it is: Xlib may still hold its own
        // lock on it from the call that failed, and closing would block for
        // good. Its memory is the price of the X server going away.
        if (!conn->dead) {
            XCloseDisplay(conn->dpy);
        }
    }
    delete conn;
}

unsigned long X11_NextSerial(X11Conn* conn)
{
    return NextRequest(conn->dpy);
}

void X11_Sync(X11Conn* conn)
{
    if (!conn->dead) {
        XSync(conn->dpy, False);
    }
}

int X11_TakeError(X11Conn* conn, unsigned long from, unsigned long to)
{
    if (conn->dead) {
        return BadImplementation;
    }
    int first = 0;
    unsigned long firstSerial = to;
    for (X11Error& e : conn->errors) {
        if (e.code != 0 && e.serial >= from && e.serial < to) {
            if (e.serial < firstSerial) {
                first = e.code;
                firstSerial = e.serial;
            }
            e.code = 0;
        }
    }
    return first;
}
