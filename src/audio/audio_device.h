// The process-wide sound device: one PulseAudio context on a threaded main
// loop, shared by every playing port.
#pragma once

#include <cstdint>

struct pa_context;
struct pa_threaded_mainloop;

// Connects to the sound server. 0, or 1 when no server can be reached (the
// library starts anyway; every later playback then fails with 533).
uint32_t Audio_Init();
void Audio_Fini();

// True when the context is connected. When it is not (the server went away,
// or was not there at start), tries once more to connect, at most once a
// second so that a missing server does not slow the decode threads down.
bool Audio_EnsureDevice();

// The main loop and context; use them with the main loop locked.
pa_threaded_mainloop* Audio_Mainloop();
pa_context* Audio_Context();

// RAII lock of the main loop (the PulseAudio calls need it).
class AudioLoopLock {
public:
    AudioLoopLock();
    ~AudioLoopLock();
    AudioLoopLock(const AudioLoopLock&) = delete;
    AudioLoopLock& operator=(const AudioLoopLock&) = delete;
};

// Waits with the main loop locked until done() is true or timeoutMs passes;
// true when done() became true.
template <class F> bool Audio_WaitLocked(F&& done, uint32_t timeoutMs);
void Audio_WaitStep(); // one polling step of Audio_WaitLocked

template <class F> bool Audio_WaitLocked(F&& done, uint32_t timeoutMs)
{
    for (uint32_t waited = 0; !done(); waited += 5) {
        if (waited >= timeoutMs) {
            return false;
        }
        Audio_WaitStep();
    }
    return true;
}
