#include "child_process.h"

#include <fcntl.h>
#include <spawn.h>

extern char** environ;

pid_t SpawnProcess(const std::vector<std::string>& args, const char* out)
{
    std::vector<char*> argv;
    for (const std::string& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (out) {
        posix_spawn_file_actions_addopen(&fa, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}
