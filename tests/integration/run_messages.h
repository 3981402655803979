// Run messages as the library's report thread delivers them, kept for the
// test to look through (the callback has no user pointer: one collector).
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "korvalen.h"
#include "wait_until.h"

struct RunMessages {
    std::mutex lock;
    std::vector<KORVALEN_RUN_MSG> msgs;

    static RunMessages& Get()
    {
        static RunMessages m;
        return m;
    }
    static void On(const KORVALEN_RUN_MSG* m)
    {
        std::lock_guard<std::mutex> l(Get().lock);
        Get().msgs.push_back(*m);
    }
    // Clears what came before and installs the callback.
    static void Install()
    {
        Get().Clear();
        Korvalen_SetPlayerRunMsgCB(&On);
    }
    void Clear()
    {
        std::lock_guard<std::mutex> l(lock);
        msgs.clear();
    }
    size_t Count(const std::function<bool(const KORVALEN_RUN_MSG&)>& match)
    {
        std::lock_guard<std::mutex> l(lock);
        size_t n = 0;
        for (const auto& m : msgs) {
            n += match(m);
        }
        return n;
    }
    // Waits (bounded) for a matching message.
    bool WaitFor(const std::function<bool(const KORVALEN_RUN_MSG&)>& match, int ms = 3000)
    {
        return WaitUntil([&] { return Count(match) > 0; }, ms);
    }
    bool WaitFor(uint32_t type, uint32_t code, uint32_t value, int ms = 3000)
    {
        return WaitFor([&](const KORVALEN_RUN_MSG& m) { return m.type == type && m.code == code && m.value == value; },
                       ms);
    }
    // A message with this code and text (a file name).
    bool Has(uint32_t code, const std::string& text)
    {
        return WaitFor([&](const KORVALEN_RUN_MSG& m) { return m.code == code && text == m.data; });
    }
};
