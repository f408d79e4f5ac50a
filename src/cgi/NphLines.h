// What an "nph-" program begins a failure's page with, in place of the web server.
#pragma once

#include <sys/uio.h>

#include "cgi/CgiVariables.h"
#include "cgi/HttpStatus.h"

// Whether a program of that base name writes the HTTP status line itself.
bool IsNphName(const char* name);

// The status line, and the "Server:" line where the web server has told its name; both end in a line feed alone. The
// texts stay where the variables are, and in this object.
class NphLines {
  public:
    NphLines(HttpStatus status, const CgiVariables& variables);
    NphLines(const NphLines&) = delete;
    NphLines& operator=(const NphLines&) = delete;

    static constexpr int kParts = 5;
    const iovec* parts() const { return parts_; }  // kParts of them, to be written in their order

  private:
    char status_[64];
    iovec parts_[kParts] = {};
};
