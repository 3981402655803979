// Test environment: each test process gets its own HOME, so log files of
// parallel test processes never meet.
#pragma once

#include "free_port.h"

#include <cstdint>
#include <string>

// The HOME folder of this test process.
const std::string& TestHome();
// Default log folder under TestHome(): "<home>/PlayerFile/".
std::string TestLogFolder();
// Reads a whole file; empty when missing.
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);
// Removes a folder tree (test scratch only).
void RemoveTree(const std::string& path);
