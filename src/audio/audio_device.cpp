#include "audio/audio_device.h"

#include <chrono>
#include <mutex>
#include <thread>

#include <pulse/pulseaudio.h>

#include "log/log.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kConnectTimeoutMs = 3000;
constexpr uint32_t kRetryEveryMs = 1000;

std::mutex g_deviceLock; // creation and teardown of the context
pa_threaded_mainloop* g_loop = nullptr;
pa_context* g_context = nullptr;
uint32_t g_lastAttempt = 0;
bool g_attempted = false;

void OnContextState(pa_context*, void*)
{
    pa_threaded_mainloop_signal(g_loop, 0);
}

void DropContextLocked()
{
    if (g_context) {
        pa_context_disconnect(g_context);
        pa_context_unref(g_context);
        g_context = nullptr;
    }
}

// Creates and connects a context; the main loop runs and is locked.
bool ConnectLocked()
{
    DropContextLocked();
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Korvalen");
    g_context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(g_loop), "Korvalen", props);
    pa_proplist_free(props);
    if (!g_context) {
        return false;
    }
    pa_context_set_state_callback(g_context, &OnContextState, nullptr);
    if (pa_context_connect(g_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_Init failed, DirectSoundCreate8 failed(retcode:%d)",
                     pa_context_errno(g_context));
        DropContextLocked();
        return false;
    }
    bool ready = Audio_WaitLocked(
        [] {
            pa_context_state_t s = pa_context_get_state(g_context);
            return s == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(s);
        },
        kConnectTimeoutMs);
    if (!ready || pa_context_get_state(g_context) != PA_CONTEXT_READY) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_Init failed, SetCooperativeLevel failed(retcode:%d)",
                     pa_context_errno(g_context));
        DropContextLocked();
        return false;
    }
    return true;
}

bool Attempt()
{
    g_attempted = true;
    g_lastAttempt = PLAT_TickMs();
    AudioLoopLock lock;
    return ConnectLocked();
}

} // namespace

AudioLoopLock::AudioLoopLock()
{
    pa_threaded_mainloop_lock(g_loop);
}

AudioLoopLock::~AudioLoopLock()
{
    pa_threaded_mainloop_unlock(g_loop);
}

void Audio_WaitStep()
{
    // The main loop thread needs the lock to make progress.
    pa_threaded_mainloop_unlock(g_loop);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    pa_threaded_mainloop_lock(g_loop);
}

uint32_t Audio_Init()
{
    std::lock_guard<std::mutex> guard(g_deviceLock);
    if (!g_loop) {
        g_loop = pa_threaded_mainloop_new();
        if (!g_loop) {
            return 1;
        }
        pa_threaded_mainloop_set_name(g_loop, "SoundDevice");
        if (pa_threaded_mainloop_start(g_loop) < 0) {
            pa_threaded_mainloop_free(g_loop);
            g_loop = nullptr;
            return 1;
        }
    }
    return Attempt() ? 0 : 1;
}

void Audio_Fini()
{
    std::lock_guard<std::mutex> guard(g_deviceLock);
    if (!g_loop) {
        return;
    }
    {
        AudioLoopLock lock;
        DropContextLocked();
    }
    pa_threaded_mainloop_stop(g_loop);
    pa_threaded_mainloop_free(g_loop);
    g_loop = nullptr;
    g_attempted = false;
}

bool Audio_EnsureDevice()
{
    std::lock_guard<std::mutex> guard(g_deviceLock);
    if (!g_loop) {
        return false;
    }
    {
        AudioLoopLock lock;
        if (g_context && pa_context_get_state(g_context) == PA_CONTEXT_READY) {
            return true;
        }
    }
    if (g_attempted && PLAT_TickMs() - g_lastAttempt < kRetryEveryMs) {
        return false;
    }
    return Attempt();
}

pa_threaded_mainloop* Audio_Mainloop()
{
    return g_loop;
}

pa_context* Audio_Context()
{
    return g_context;
}
