// What the server tells: its work on standard output, trouble on standard error. Each call writes one whole
// line at once and may come from any thread.
#pragma once

#include <string>

void logLine(const std::string& line);
void logError(const std::string& message);  // the program's name goes before it
