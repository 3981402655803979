#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_env.h"

namespace {
std::string g_home;
}

const std::string& TestHome()
{
    return g_home;
}

std::string TestLogFolder()
{
    return g_home + "/PlayerFile/";
}

std::string ReadFile(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool FileExists(const std::string& path)
{
    return std::filesystem::exists(path);
}

void RemoveTree(const std::string& path)
{
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

int main(int argc, char** argv)
{
    char tmpl[] = "/tmp/korvalen-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    if (!dir) {
        return 1;
    }
    g_home = dir;
    setenv("HOME", dir, 1);
    unsetenv("XDG_DOCUMENTS_DIR");
    ::testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    RemoveTree(g_home);
    return rc;
}
