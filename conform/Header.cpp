#include "Header.h"

#include <algorithm>

#include "cgi/VeHttpResponse.h"
#include "common/Text.h"

namespace {

constexpr std::string_view kNotInFields("\0\r\n", 3);
constexpr std::size_t kLongestLine = 8190;  // bytes that Apache takes

bool isName(std::string_view text) {
    return !text.empty() && text.find_first_of(" \t\"(),/:;<=>?@[\\]{}") == std::string_view::npos;
}

}  // namespace

Header::Header(const std::string& text) {
    // The gateway's own look at the status line.
    void* response = VeHttpParseResponse(text.c_str(), false);
    if (response == nullptr) return;
    status_ = VeHttpGetStatusCode(response);
    std::string_view rest = std::string_view(text).substr(
        static_cast<std::size_t>(VeHttpFirstResponseHeader(response) - text.c_str()));
    VeHttpReleaseResponse(response);

    for (;;) {
        const std::size_t end = rest.find("\r\n");
        if (end == std::string_view::npos) {
            fault_ = "the empty line at the end is missing, after \"" + printable(rest) + "\"";
            return;
        }
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end + 2);
        if (line.empty()) break;
        const std::size_t colon = std::min(line.find(':'), line.size());
        if (colon == line.size() || !isName(line.substr(0, colon)) ||
            line.find_first_of(kNotInFields) != std::string_view::npos) {
            fault_ = "the line \"" + printable(line) + "\" is no field";
            return;
        }
        if (line.size() > kLongestLine) {
            fault_ = format("the field %s has %zu bytes, more than %zu",
                            printable(line.substr(0, colon)).c_str(), line.size(), kLongestLine);
        }
        const std::size_t value = std::min(line.find_first_not_of(' ', colon + 1), line.size());
        fields_.emplace_back(line.substr(0, colon), line.substr(value));
    }
    if (!rest.empty()) fault_ = "\"" + printable(rest) + "\" follows the empty line";
}

const std::string* Header::find(std::string_view name) const {
    for (const auto& [key, value] : fields_) {
        if (key.size() == name.size() && startsWithIgnoringCase(key, name)) return &value;
    }
    return nullptr;
}

bool Header::allowsBody() const {
    return status_ >= 200 && status_ != 204 && status_ != 304;
}
