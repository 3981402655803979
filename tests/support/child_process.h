// Starting helper programs for tests and benchmarks.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// Starts a program found on PATH (or by its path). With out set, its
// standard output goes to that file (made or emptied) and its errors to
// /dev/null; with out null both stay ours. The child's id, or -1.
pid_t SpawnProcess(const std::vector<std::string>& args, const char* out);
