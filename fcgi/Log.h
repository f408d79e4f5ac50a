// The host's own lines on standard error.
#pragma once

#include <string>

// One line, whole among those of other threads. Threads: any.
void logLine(const std::string& text);
