#include "Log.h"

#include <cstdio>

namespace {

void writeLine(std::FILE* stream, const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fflush(stream);
}

}  // namespace

void logLine(const std::string& line) {
    writeLine(stdout, line + "\n");
}

void logError(const std::string& message) {
    writeLine(stderr, "velarto-devserver: " + message + "\n");
}
