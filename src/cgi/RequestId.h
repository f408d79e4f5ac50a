// RequestId: a name for one request, by which its page, its line in the log and the web server's own log are found.
#pragma once

#include "cgi/CgiVariables.h"

// UNIQUE_ID where the web server gives one (Apache's mod_unique_id), else 16 hexadecimal digits at random. Made when it
// is first asked for; valid as long as the object.
class RequestId {
  public:
    explicit RequestId(const CgiVariables& variables) : variables_(variables) {}
    RequestId(const RequestId&) = delete;
    RequestId& operator=(const RequestId&) = delete;

    const char* text();

  private:
    const CgiVariables& variables_;
    char text_[65] = "";
};
