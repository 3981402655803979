// A log sink for tests: installs itself as the library's log sink and keeps
// every line it receives.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

struct CapturedLine {
    uint32_t level;
    uint32_t module;
    std::string source;
    uint32_t line;
    std::string text;
};

class LogCapture {
public:
    LogCapture();  // installs the sink, replacing any other
    ~LogCapture(); // restores the previous sink

    std::vector<CapturedLine> Lines() const;
    // Lines whose text contains needle.
    size_t Count(const std::string& needle) const;
    bool Has(const std::string& needle) const { return Count(needle) > 0; }
    // Level of the first line containing needle, 0 when none.
    uint32_t LevelOf(const std::string& needle) const;
    void Clear();
};
