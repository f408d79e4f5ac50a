// Request: one request of the gateway, as the server received it; Arguments and FormPart: its forms decoded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/QuilTypes.h"

struct Request {
    std::uint32_t fileTime = 0;  // of the file in PATH_TRANSLATED, seconds since 1970; 0: no such file
    std::string body;
    std::array<std::string, QUIL_PARAM_NONE> parameters;

    const std::string& operator[](TQUILReqParamID id) const {
        return parameters[static_cast<std::size_t>(id)];
    }
    bool isHead() const;
    std::string path() const;  // PATH_INFO, "/" when there is none
};

// What the gateway has appended to the browser's cookies. A browser may send cookies of these names, too: the
// gateway's are the last VelartoClient, and a Velarto_CGIIP after it.
struct GatewayCookies {
    explicit GatewayCookies(std::string_view cookies);

    std::string client;
    std::string route;  // empty when the gateway gave none
};

// The request asks for something impossible; what() says it to the user.
class BadArgument : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The decoded pairs of a query string or an "application/x-www-form-urlencoded" body, in their order.
class Arguments {
  public:
    explicit Arguments(std::string_view encoded);

    const std::vector<std::pair<std::string, std::string>>& all() const { return pairs_; }
    const std::string* find(std::string_view name) const;  // the first of that name; null when there is none
    std::string text(std::string_view name, const std::string& fallback) const;
    // Throws BadArgument when there is one that is no number or lies outside.
    std::uint64_t number(std::string_view name, std::uint64_t fallback, std::uint64_t from,
                         std::uint64_t to) const;

  private:
    std::vector<std::pair<std::string, std::string>> pairs_;
};

// One part of a "multipart/form-data" body (RFC 7578).
struct FormPart {
    std::string name;
    std::string fileName;  // empty: not a file
    std::string type;
    std::string_view content;  // lies in the body
};

// The parts up to the first damaged one; none when the content type names no boundary.
std::vector<FormPart> parseMultipart(std::string_view contentType, std::string_view body);
