#include "Outline.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

#include "config/ConfigParser.h"

namespace {

constexpr std::string_view kBlanks = " \t";

template <typename Items, typename NameOf>
auto findByName(const Items& items, std::string_view name, NameOf nameOf) {
    const auto found = std::find_if(items.begin(), items.end(),
                                    [&](const auto& item) { return sameName(nameOf(item), name); });
    return found != items.end() ? &*found : nullptr;
}

}  // namespace

bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string lineOf(const PlacedText& text) {
    return "line " + std::to_string(text.place.line);
}

const OutlineAttribute* OutlineSection::find(std::string_view key) const {
    return findByName(attributes, key, [](const OutlineAttribute& a) { return a.key.text; });
}

Outline::Outline(std::string content) : content_(std::move(content)), lineStarts_{0} {
    for (std::size_t i = 0; i < content_.size(); ++i) {
        if (content_[i] == '\n') lineStarts_.push_back(i + 1);
    }
    for (std::size_t start = 0; start < content_.size();)
        start = parseFrom(start);
    ConfigParser parser(content_.data(), static_cast<std::uint32_t>(content_.size()));
    while (parser.nextStanza() != nullptr) {
    }
    parses_ = *parser.error().reason == '\0';
}

const OutlineSection* Outline::find(std::string_view name) const {
    return findByName(sections_, name, [](const OutlineSection& s) { return s.name.text; });
}

std::string_view Outline::line(std::uint32_t number) const {
    const std::size_t start = lineStarts_[number - 1];
    const std::size_t end = content_.find('\n', start);
    return std::string_view(content_).substr(start, end == std::string::npos ? end : end - start);
}

Place Outline::droppedKey() const {
    const auto last = static_cast<std::uint32_t>(lineStarts_.size());
    const std::string_view text = line(last);
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos || text.find_first_of(";=[") != std::string_view::npos) return {};
    return {last, static_cast<std::uint32_t>(first + 1)};
}

std::vector<std::uint32_t> Outline::linesWithComments() const {
    std::vector<std::uint32_t> lines;
    for (std::uint32_t number = 1; number <= lineStarts_.size(); ++number) {
        const std::string_view text = line(number);
        const std::size_t first = std::min(text.find_first_not_of(kBlanks), text.size());
        const bool isHeader = text.substr(first, 1) == "[";
        const std::size_t comment = isHeader ? text.find(';', std::min(text.find(']'), text.size())) : first;
        if (text.substr(std::min(comment, text.size()), 1) == ";") lines.push_back(number);
    }
    return lines;
}

Place Outline::placeOf(std::size_t offset) const {
    const auto next = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
    return {static_cast<std::uint32_t>(next - lineStarts_.begin()),
            static_cast<std::uint32_t>(offset - *(next - 1) + 1)};
}

// Takes sections from there on; returns where to go on after an error, the content's end without one.
std::size_t Outline::parseFrom(std::size_t start) {
    const char* const bytes = content_.data() + start;
    ConfigParser parser(bytes, static_cast<std::uint32_t>(content_.size() - start));
    const auto placed = [&](const char* text, std::size_t offset, std::size_t length, bool isCut) {
        const std::string_view inFile(bytes + offset, length);
        return PlacedText{text, placeOf(start + offset), isCut, inFile == text};
    };
    while (parser.nextHeader()) {
        const Place place = placeOf(start + parser.offset());
        if (line(place.line).find(']', place.column - 1) == std::string_view::npos) {
            errors_.push_back({place, "no ] after the section's name on its line"});
            return nextHeaderFrom(place.line + 1);
        }
        const char* const text = parser.name();
        const bool isTooLong = *text == '\0' && parser.length() != 0;
        const PlacedText name = placed(text, parser.offset(), parser.length(), parser.isCut() || isTooLong);
        sections_.push_back({name, {}, true});
        while (parser.nextAttribute()) {
            const std::size_t keyLength = parser.offset() - 1 - parser.keyOffset();  // up to the =
            const bool keyIsCut = std::memchr(bytes + parser.keyOffset(), '\0', keyLength) != nullptr;
            const char* const value = parser.value();
            sections_.back().attributes.push_back(
                {placed(parser.key(), parser.keyOffset(), keyLength, keyIsCut),
                 placed(value, parser.offset(), parser.length(), parser.isCut())});
        }
        sections_.back().isWhole = *parser.error().reason == '\0';
        if (!sections_.back().isWhole) break;
    }
    const ParseError& error = parser.error();
    if (*error.reason == '\0') return content_.size();

    const std::uint32_t number = placeOf(start).line + error.line - 1;
    errors_.push_back({{number, error.column}, error.reason});
    // The line may itself begin the next section, unless that is the one with the error.
    const bool isOwnHeader = !sections_.empty() && sections_.back().name.place.line == number;
    return nextHeaderFrom(isOwnHeader ? number + 1 : number);
}

// Where the first line from that one on begins that looks like a section's header; else the content's end.
std::size_t Outline::nextHeaderFrom(std::uint32_t number) const {
    for (; number <= lineStarts_.size(); ++number) {
        const std::string_view text = line(number);
        const std::size_t first = text.find_first_not_of(kBlanks);
        if (first != std::string_view::npos && text[first] == '[') return lineStarts_[number - 1];
    }
    return content_.size();
}
