#include "cgi/NphLines.h"

#include <cstdio>
#include <cstring>

#include "platform/osfile_impl.h"

bool IsNphName(const char* name) {
    return std::strncmp(name, "nph-", 4) == 0;
}

NphLines::NphLines(HttpStatus status, const CgiVariables& variables) {
    const char* protocol = variables.get("SERVER_PROTOCOL");
    const char* software = variables.get("SERVER_SOFTWARE");
    std::snprintf(status_, sizeof status_, " %d %s\n", status.code, status.reason);
    parts_[0] = TextPart(protocol != nullptr ? protocol : "HTTP/1.0");
    parts_[1] = TextPart(status_);
    if (software == nullptr) return;
    parts_[2] = TextPart("Server: ");
    parts_[3] = TextPart(software);
    parts_[4] = TextPart("\n");
}
