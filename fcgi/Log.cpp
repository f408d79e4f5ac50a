#include "Log.h"

#include <unistd.h>

void logLine(const std::string& text) {
    const std::string line = "velarto-fcgi: " + text + "\n";
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}
