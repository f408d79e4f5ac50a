// The request of velarto-config try: what a web server would hand to the gateway.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "protocol/QuilRequest.h"

struct TryOptions {
    std::string client;
    std::string urlPath;
    std::optional<std::string> method;        // none: GET, or POST with a body
    std::optional<std::string> data;          // the body's file, "-": standard input
    std::optional<std::string> documentRoot;  // none: there is no PATH_TRANSLATED
    std::vector<std::string> headers;         // NAME:VALUE
    bool verbose = false;
};

// CGI variables (RFC 3875) by their names.
using Variables = std::map<std::string, std::string>;

// All but CONTENT_LENGTH. Failure: something of it no web server would let through.
Variables variablesOf(const TryOptions& options);

// Reads a whole file, "-" for standard input. Failure: it cannot be read, or is too long for a body.
void readBody(const std::string& file, CData& body);
