// Wire: messages between gateway and application server as plain bytes, built and taken apart here from
// scratch, so that what the product writes is judged by a second opinion.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace support::wire {

inline std::string number(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    return bytes;
}

// A text or a byte block: its length, then its bytes.
inline std::string counted(const std::string& bytes) {
    return number(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

inline std::string message(std::uint32_t type, const std::string& body = {}) {
    return "QUIL\xFF\xFD\xFF\xFD" + number(type) + body + "END!";
}

// ---- from the server ----
inline std::string fileRequest(const std::string& path) {
    return message(2, counted(path));
}
inline std::string body(const std::string& text) {
    return message(4, counted(text));
}
inline std::string header(const std::string& text) {
    return message(6, counted(text));
}
inline std::string end() {
    return message(7);
}

// ---- from the gateway ----
inline std::string acknowledgement(std::uint32_t type) {
    return message(type, number(1));
}
inline std::string fileReply(const std::string& content) {
    return message(3, number(1) + counted(content));
}
inline std::string fileRefused() {
    return message(3, number(0));
}

inline const std::array<std::string, 25> kParameters = {
    "QUERY_STRING", "PATH_INFO",      "PATH_TRANSLATED", "REQUEST_METHOD", "REMOTE_HOST",
    "REMOTE_IDENT", "REMOTE_USER",    "REMOTE_PASSWD",   "REMOTE_NAME",    "REMOTE_PORT",
    "SERVER_NAME",  "SERVER_PORT",    "SCRIPT_NAME",     "HTTP_REFERER",   "HTTP_USER_AGENT",
    "CONTENT_TYPE", "CONTENT_LENGTH", "PLUGIN",          "REMOTE_ADDR",    "HTTP_COOKIE",
    "COMMANDLINE",  "HTTP_FROM",      "HTTP_ACCEPT",     "SOAPACTION",     "FULLHEADER"};

struct Request {
    std::uint32_t fileTime = 0;
    std::string post;
    std::array<std::string, 25> values;  // in the order of kParameters

    std::string& operator[](const std::string& name) {
        const auto at = std::find(kParameters.begin(), kParameters.end(), name);
        return values.at(static_cast<std::size_t>(at - kParameters.begin()));
    }
};

inline std::string encode(const Request& request) {
    std::string fields = number(request.fileTime) + counted(request.post);
    for (std::size_t i = 0; i < kParameters.size(); ++i)
        fields += counted(kParameters[i]) + counted(request.values[i]);
    return message(1, fields);
}

// Takes a request apart as it arrives: take(n) yields the next n bytes. What came is well-formed when the
// result encodes to the same bytes.
inline Request decode(const std::function<std::string(std::size_t)>& take) {
    const auto takeNumber = [&] {
        std::uint32_t value = 0;
        for (const char byte : take(4))
            value = value << 8 | static_cast<unsigned char>(byte);
        return value;
    };
    Request request;
    take(12);
    request.fileTime = takeNumber();
    request.post = take(takeNumber());
    for (std::string& value : request.values) {
        take(takeNumber());
        value = take(takeNumber());
    }
    take(4);
    return request;
}

}  // namespace support::wire
