// ErrorPage: what a visitor sees of a failure.
#pragma once

#include <cstdint>

#include "Server/Common_Classes/UText.h"
#include "cgi/HttpStatus.h"

// The page of a client error code: the file, with {{CODE}}, {{STATUS}} and {{REQUEST}} filled in, or, where none is
// named or it cannot be read, the built-in page with the recorded detail message. Empty without memory for it.
class ErrorPage {
  public:
    ErrorPage(std::uint32_t code, HttpStatus status, const CText& file, const char* requestId);

    const char* text() const { return text_.GetTextEx(); }
    bool isBuiltIn() const { return isBuiltIn_; }

  private:
    bool fillIn(const CText& file, std::uint32_t code, HttpStatus status, const char* requestId);

    CText text_;
    bool isBuiltIn_;
};
