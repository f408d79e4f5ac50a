// Wire: messages between gateway and application server as plain bytes, built here from scratch, so that what
// the product writes is judged by a second opinion.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>

namespace support::wire {

inline std::string number(std::uint32_t value) {
    const std::uint32_t bytes = htonl(value);
    return {reinterpret_cast<const char*>(&bytes), sizeof bytes};
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

// The values of the parameters by their names, and more.
struct Request : std::map<std::string, std::string> {
    std::uint32_t fileTime = 0;
    std::string post;
};

inline std::string encode(Request request) {
    std::string fields = number(request.fileTime) + counted(request.post);
    for (const std::string& name : kParameters)
        fields += counted(name) + counted(request[name]);
    return message(1, fields);
}

}  // namespace support::wire
