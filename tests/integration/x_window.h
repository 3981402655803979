// A private X server with a mapped window, and reading back what reached
// the screen. Include after gtest: Xlib's macros clash with its names.
#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "wait_until.h"
#include "xvfb_server.h"

struct Rgb {
    int r, g, b;
};

inline Rgb At(Display* dpy, Window w, int x, int y)
{
    XImage* img = XGetImage(dpy, w, x, y, 1, 1, AllPlanes, ZPixmap);
    if (!img) {
        return {-1, -1, -1};
    }
    unsigned long p = XGetPixel(img, 0, 0);
    XDestroyImage(img);
    return {static_cast<int>((p >> 16) & 0xFF), static_cast<int>((p >> 8) & 0xFF), static_cast<int>(p & 0xFF)};
}

inline bool Near(Rgb c, Rgb want)
{
    return std::abs(c.r - want.r) < 50 && std::abs(c.g - want.g) < 50 && std::abs(c.b - want.b) < 50;
}

constexpr Rgb kRed{255, 0, 0}, kGreen{0, 255, 0}, kBlue{0, 0, 255}, kYellow{255, 255, 0}, kGrey{128, 128, 128};

using ScreenPoints = std::vector<std::pair<std::pair<int, int>, Rgb>>;

// Waits (bounded) until every point shows its colour; *why names the first
// point that did not.
inline bool WaitForColours(Display* dpy, Window w, const ScreenPoints& want, std::string* why)
{
    return WaitUntil(
        [&] {
            for (const auto& [xy, c] : want) {
                Rgb got = At(dpy, w, xy.first, xy.second);
                if (!Near(got, c)) {
                    *why = "(" + std::to_string(xy.first) + "," + std::to_string(xy.second) + ") is " +
                           std::to_string(got.r) + "," + std::to_string(got.g) + "," + std::to_string(got.b);
                    return false;
                }
            }
            return true;
        },
        4000);
}

// Xvfb, a connection to it and one mapped window. Open() is false when
// Xvfb is not installed or did not start.
struct TestScreen {
    XvfbServer server;
    Display* dpy = nullptr;
    Window win = 0;

    bool Open(unsigned width, unsigned height)
    {
        if (!server.Start() || !(dpy = XOpenDisplay(nullptr))) {
            return false;
        }
        win = NewWindow(width, height);
        return true;
    }
    Window NewWindow(unsigned width, unsigned height)
    {
        Window w = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, width, height, 0, 0, WhitePixel(dpy, 0));
        XMapWindow(dpy, w);
        XSync(dpy, False);
        return w;
    }
    void Close()
    {
        if (dpy) {
            XCloseDisplay(dpy);
            dpy = nullptr;
        }
    }
    ~TestScreen() { Close(); }
};
