// CgiVariables: where a request's CGI variables come from.
#pragma once

#include <cstdlib>

// The variables that a web server gives with one request (RFC 3875, 4.1).
class CgiVariables {
  public:
    // The value, valid as long as the request; null when the web server gave none.
    virtual const char* get(const char* name) const = 0;

  protected:
    ~CgiVariables() = default;
};

// A CGI program's own environment.
class ProcessEnvironment final : public CgiVariables {
  public:
    const char* get(const char* name) const override { return std::getenv(name); }
};
