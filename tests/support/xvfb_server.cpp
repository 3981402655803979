#include "xvfb_server.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

std::string SocketOf(int n)
{
    return "/tmp/.X11-unix/X" + std::to_string(n);
}

std::string LockOf(int n)
{
    return "/tmp/.X" + std::to_string(n) + "-lock";
}

// A display number is free when no live server holds its lock; what a
// killed server left behind (socket and lock file) is cleared away.
bool ClaimIfFree(int n)
{
    struct stat st {};
    if (stat(SocketOf(n).c_str(), &st) != 0 && stat(LockOf(n).c_str(), &st) != 0) {
        return true;
    }
    FILE* f = std::fopen(LockOf(n).c_str(), "r");
    long pid = 0;
    if (f) {
        if (std::fscanf(f, "%ld", &pid) != 1) {
            pid = 0;
        }
        std::fclose(f);
    }
    if (pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM)) {
        return false;
    }
    if (!f && stat(LockOf(n).c_str(), &st) == 0) {
        return false; // a lock we cannot read: leave it be
    }
    unlink(SocketOf(n).c_str());
    unlink(LockOf(n).c_str());
    return true;
}

} // namespace

bool XvfbServer::Installed()
{
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t at = 0;
    while (at <= dirs.size()) {
        size_t end = dirs.find(':', at);
        if (end == std::string::npos) {
            end = dirs.size();
        }
        if (access((dirs.substr(at, end - at) + "/Xvfb").c_str(), X_OK) == 0) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

XvfbServer::~XvfbServer()
{
    Kill();
}

bool XvfbServer::Start()
{
    // A display number of our own, derived from the process id.
    for (int attempt = 0; attempt < 20; ++attempt) {
        int n = 100 + (getpid() * 7 + attempt * 13) % 800;
        std::string sock = SocketOf(n);
        struct stat st {};
        if (!ClaimIfFree(n)) {
            continue;
        }
        m_display = n;
        m_name = ":" + std::to_string(n);
        std::vector<std::string> args = {"Xvfb",         m_name,      "-screen", "0",
                                         "1920x1200x24", "-nolisten", "tcp",     "-noreset"};
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
        int rc = posix_spawnp(&m_pid, "Xvfb", &fa, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        if (rc != 0) {
            m_pid = -1;
            return false;
        }
        for (int i = 0; i < 100; ++i) {
            if (stat(sock.c_str(), &st) == 0) {
                setenv("DISPLAY", m_name.c_str(), 1);
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                return true;
            }
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1; // it died: try another number
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        Kill();
    }
    return false;
}

void XvfbServer::Kill()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        // A killed server leaves its socket and lock behind.
        unlink(SocketOf(m_display).c_str());
        unlink(LockOf(m_display).c_str());
    }
}
