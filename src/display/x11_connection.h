// One shared X connection per display name. Our own connections: the
// caller's Xlib use is never touched. Errors on them are trapped instead of
// ending the process; a lost connection marks the connection dead.
#pragma once

#include <mutex>
#include <string>

typedef struct _XDisplay Display;

// An error the server reported, by the serial of the request that failed.
struct X11Error {
    unsigned long serial = 0;
    int code = 0; // 0: slot free
};

struct X11Conn {
    std::string name;
    Display* dpy = nullptr;
    std::mutex lock; // every Xlib call on dpy is made under it
    int refs = 0;
    bool dead = false;
    bool hasShm = false;
    int shmCompletion = 0; // event type of a finished shared put
    // Errors not taken yet. Puts are not waited for, so an error may come
    // in while another display on the connection reads from the server:
    // each display takes only the errors of its own requests.
    static constexpr unsigned kErrorSlots = 16;
    X11Error errors[kErrorSlots];
    unsigned nextError = 0; // the slot written next; the oldest goes first
};

// The connection for a display name (null = $DISPLAY), opened on first use
// or when the previous one died. Null when no X server answers.
X11Conn* X11_Acquire(const char* name);
void X11_Release(X11Conn* conn);

// With conn->lock held: the serial the next request will have. A display
// notes it before and after its requests to name them.
unsigned long X11_NextSerial(X11Conn* conn);

// With conn->lock held: waits until the server has handled every request
// sent so far (nothing on a dead connection).
void X11_Sync(X11Conn* conn);

// With conn->lock held: returns and forgets the first error trapped for the
// requests with serials in [from, to) (0 = none), without waiting for the
// server; BadImplementation once the connection is dead.
int X11_TakeError(X11Conn* conn, unsigned long from, unsigned long to);
