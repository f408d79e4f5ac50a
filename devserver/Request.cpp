#include "Request.h"

#include <algorithm>

#include "common/Text.h"

namespace {

// Percent escapes and "+" resolved; a damaged escape stays as it is.
std::string decode(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        std::size_t taken = 1;
        char c = text.front() == '+' ? ' ' : text.front();
        if (c == '%' && text.size() >= 3) {
            if (const auto byte = parseNumber("0x" + std::string(text.substr(1, 2)))) {
                c = static_cast<char>(*byte);
                taken = 3;
            }
        }
        result += c;
        text.remove_prefix(taken);
    }
    return result;
}

// What stands before the separator; text goes on after it. Without a separator the whole text.
std::string_view takeUpTo(std::string_view& text, std::string_view separator) {
    const std::size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
    return taken;
}

// The value of name=value or name="value" among the ;-separated attributes of a header field.
std::string attribute(std::string_view field, std::string_view name) {
    while (!field.empty()) {
        std::string_view piece = takeUpTo(field, ";");
        piece.remove_prefix(std::min(piece.find_first_not_of(' '), piece.size()));
        const std::string_view key = takeUpTo(piece, "=");
        if (key.size() != name.size() || !startsWithIgnoringCase(key, name)) continue;
        if (piece.empty() || piece.front() != '"') return std::string(piece);
        piece.remove_prefix(1);
        return std::string(takeUpTo(piece, "\""));
    }
    return {};
}

FormPart parsePartHeader(std::string_view header) {
    constexpr std::string_view kDisposition = "Content-Disposition:";
    constexpr std::string_view kType = "Content-Type: ";
    FormPart part;
    while (!header.empty()) {
        const std::string_view line = takeUpTo(header, "\r\n");
        if (startsWithIgnoringCase(line, kDisposition)) {
            part.name = attribute(line, "name");
            part.fileName = attribute(line, "filename");
        } else if (startsWithIgnoringCase(line, kType)) {
            part.type = line.substr(kType.size());
        }
    }
    return part;
}

}  // namespace

bool Request::isHead() const {
    return (*this)[QUIL_PARAM_REQUEST_METHOD] == "HEAD";
}

std::string Request::path() const {
    const std::string& path = (*this)[QUIL_PARAM_PATH_INFO];
    return path.empty() ? "/" : path;
}

GatewayCookies::GatewayCookies(std::string_view cookies) {
    while (!cookies.empty()) {
        // Whatever quotes say: a browser's could hide what follows.
        std::string_view value = takeUpTo(cookies, ";");
        value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
        const std::string_view name = takeUpTo(value, "=");
        if (name == "VelartoClient") {
            client = value;
            route.clear();  // what came before is the browser's word
        } else if (name == "Velarto_CGIIP") {
            route = value;
        }
    }
}

Arguments::Arguments(std::string_view encoded) {
    while (!encoded.empty()) {
        std::string_view value = takeUpTo(encoded, "&");
        if (value.empty()) continue;
        const std::string_view name = takeUpTo(value, "=");
        pairs_.emplace_back(decode(name), decode(value));
    }
}

const std::string* Arguments::find(std::string_view name) const {
    for (const auto& [key, value] : pairs_) {
        if (key == name) return &value;
    }
    return nullptr;
}

std::string Arguments::text(std::string_view name, const std::string& fallback) const {
    const std::string* value = find(name);
    return value == nullptr ? fallback : *value;
}

std::uint64_t Arguments::number(std::string_view name, std::uint64_t fallback, std::uint64_t from,
                                std::uint64_t to) const {
    const std::string* text = find(name);
    if (text == nullptr) return fallback;
    const auto value = parseNumber(*text);
    if (!value || *value < from || *value > to) {
        throw BadArgument(std::string(name) + " must be a number from " + std::to_string(from) + " to " +
                          std::to_string(to) + ", not \"" + *text + "\".");
    }
    return *value;
}

std::vector<FormPart> parseMultipart(std::string_view contentType, std::string_view body) {
    std::vector<FormPart> parts;
    const std::string boundary = attribute(contentType, "boundary");
    if (boundary.empty()) return parts;
    const std::string delimiter = "--" + boundary;
    takeUpTo(body, delimiter);
    while (body.substr(0, 2) == "\r\n") {
        body.remove_prefix(2);
        FormPart part = parsePartHeader(takeUpTo(body, "\r\n\r\n"));
        if (body.find("\r\n" + delimiter) == std::string_view::npos) break;
        part.content = takeUpTo(body, "\r\n" + delimiter);
        parts.push_back(std::move(part));
    }
    return parts;
}
