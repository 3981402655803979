#include "log_capture.h"

#include "korvalen_types.h"
#include "log/log.h"

namespace {
std::mutex g_mutex;
std::vector<CapturedLine> g_lines;
KORVALEN_LOG_CB g_previous = nullptr;

void Sink(uint32_t level, uint32_t module, uint32_t, const char* source, uint32_t line, const char* text)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({level, module, source ? source : "", line, text ? text : ""});
}
} // namespace

LogCapture::LogCapture()
{
    Clear();
    g_previous = LOG_SetSink(&Sink);
}

LogCapture::~LogCapture()
{
    LOG_SetSink(g_previous);
}

std::vector<CapturedLine> LogCapture::Lines() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

size_t LogCapture::Count(const std::string& needle) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    size_t n = 0;
    for (const auto& l : g_lines) {
        n += l.text.find(needle) != std::string::npos;
    }
    return n;
}

uint32_t LogCapture::LevelOf(const std::string& needle) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto& l : g_lines) {
        if (l.text.find(needle) != std::string::npos) {
            return l.level;
        }
    }
    return 0;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}
