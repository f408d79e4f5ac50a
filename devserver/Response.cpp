#include "Response.h"

#include <algorithm>

#include "common/Text.h"

namespace {

struct StatusReason {
    std::uint32_t code;
    const char* reason;
};

constexpr StatusReason kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {206, "Partial Content"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {410, "Gone"},
    {418, "I'm a Teapot"},
    {429, "Too Many Requests"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
};

}  // namespace

ResponseHeader::ResponseHeader(std::uint32_t status)
    : code(status), reason("Status " + std::to_string(status)) {
    const auto* known = std::find_if(std::begin(kReasons), std::end(kReasons),
                                     [status](const auto& r) { return r.code == status; });
    if (known != std::end(kReasons)) reason = known->reason;
}

bool ResponseHeader::allowsBody() const {
    return code >= 200 && code != 204 && code != 304;
}

std::string ResponseHeader::text() const {
    const std::string status = std::to_string(code) + " " + reason + "\r\n";
    std::string header = "HTTP/1.0 " + status;
    // A gateway that is no "nph-" program drops the status line; this field carries the status on (RFC 3875,
    // 6.3.3).
    if (code != 200) header += "Status: " + status;
    if (allowsBody()) {
        header += "Content-Type: " + type + "\r\n";
        if (length) header += "Content-Length: " + std::to_string(*length) + "\r\n";
    }
    for (const auto& [name, value] : fields)
        header += name + ": " + value + "\r\n";
    return header + "\r\n";
}

ResponseHeader Response::complete(ResponseHeader header) const {
    header.fields.emplace_back("Cache-Control", "no-store");
    header.fields.emplace_back("X-Velarto-Server", server_);
    return header;
}

bool Response::begin(ResponseHeader header) {
    code_ = header.code;
    withBody_ = withBody_ && header.allowsBody();
    conversation_.sendHeader(complete(std::move(header)).text());
    return withBody_;
}

void Response::write(std::string_view bytes) {
    for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(bytes.size(), pieceSize_)))
        writePiece(bytes.substr(0, pieceSize_));
}

void Response::writePiece(std::string_view bytes) {
    if (!withBody_) return;
    conversation_.sendPiece(bytes);
    bodyLength_ += bytes.size();
}

void Response::end() {
    if (!ended_) conversation_.sendEnd();
    ended_ = true;
}

void Response::send(ResponseHeader header, std::string_view content) {
    header.length = content.size();
    begin(std::move(header));
    write(content);
}
