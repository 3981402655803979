// One shared X connection per display name. Our own connections: the
// caller's Xlib use is never touched. Errors on them are trapped instead of
// ending the process; a lost connection marks the connection dead.
#pragma once

#include <mutex>
#include <string>

typedef struct _XDisplay Display;

struct X11Conn {
    std::string name;
    Display* dpy = nullptr;
    std::mutex lock; // every Xlib call on dpy is made under it
    int refs = 0;
    bool dead = false;
    bool hasShm = false;
    int lastError = 0; // error code trapped since the last X11_TakeError
};

// The connection for a display name (null = $DISPLAY), opened on first use
// or when the previous one died. Null when no X server answers.
X11Conn* X11_Acquire(const char* name);
void X11_Release(X11Conn* conn);

// With conn->lock held: flushes the requests, and returns and clears the
// error code trapped since the last call (0 = none).
int X11_TakeError(X11Conn* conn);
