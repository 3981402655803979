// A real X server (Xvfb) private to the test process.
#pragma once

#include <string>
#include <sys/types.h>

class XvfbServer {
public:
    // Whether Xvfb is installed: a test skips without it, and fails when it
    // is there and still cannot start.
    static bool Installed();
    ~XvfbServer();
    // Starts Xvfb on a free display number and points DISPLAY at it.
    bool Start();
    void Kill();
    const std::string& Name() const { return m_name; }
    pid_t Pid() const { return m_pid; }

private:
    std::string m_name;
    int m_display = -1;
    pid_t m_pid = -1;
};
