// What the benchmarks that put pictures into X11 windows share: a 4:2:0
// picture node, a mapped window, per-picture timing of batches and the X
// server's CPU.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

#include <X11/Xlib.h>

#include "queue/queue_picture.h"

namespace bench {

using Clock = std::chrono::steady_clock;

// CPU seconds the X server has used: its copies of our pictures.
inline double ServerCpuSeconds(pid_t pid)
{
    if (pid <= 0) {
        return 0;
    }
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    FILE* f = std::fopen(path, "r");
    if (!f) {
        return 0;
    }
    unsigned long utime = 0, stime = 0;
    // Fields 14 and 15, after the command name in parentheses.
    int got = std::fscanf(f, "%*d (%*[^)]) %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime);
    std::fclose(f);
    return got == 2 ? static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK)) : 0;
}

// A generated I420 picture in a picture node, as the render thread holds it.
struct Picture {
    uint32_t w, h;
    std::vector<uint8_t> buf;
    QUEUE_PICTURE_NODE node;
    Picture(uint32_t width, uint32_t height) : w(width), h(height), buf(width * height * 3 / 2)
    {
        for (size_t i = 0; i < buf.size(); ++i) {
            buf[i] = static_cast<uint8_t>(i * 31 >> 4);
        }
        uint8_t* plane = buf.data();
        for (int i = 0; i < 3; ++i) { // Y, then U and V at half size each way
            node.planes[i] = plane;
            node.lineSizes[i] = i == 0 ? w : w / 2;
            plane += i == 0 ? w * h : w * h / 4;
        }
        node.width = w;
        node.height = h;
    }
};

inline Window MakeWindow(Display* dpy, int x, int y, unsigned w, unsigned h)
{
    Window win = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), x, y, w, h, 0, 0, 0);
    XMapWindow(dpy, win);
    XSync(dpy, False);
    return win;
}

// Per picture, over batches: the fastest batch is the one least disturbed
// on a shared machine, the mean shows what the others cost.
struct Timing {
    double bestMs = 1e9; // the fastest batch, per picture
    double meanMs = 0;   // all batches, per picture
    double cpuMs = 0;    // our CPU per picture
    double serverCpuMs = 0;
};

// One batch of n pictures that took ms in all.
inline void NoteMs(Timing* t, double ms, int n)
{
    t->bestMs = std::min(t->bestMs, ms / n);
    t->meanMs += ms;
}

inline double MsSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

inline void Note(Timing* t, Clock::time_point t0, int n)
{
    NoteMs(t, MsSince(t0), n);
}

// Turns the sums of `pictures` pictures into per-picture means.
inline void Finish(Timing* t, int pictures)
{
    t->meanMs /= pictures;
    t->cpuMs /= pictures;
    t->serverCpuMs /= pictures;
}

} // namespace bench
