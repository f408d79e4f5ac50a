// Outline: what the gateway's parser finds in a configuration file, and where.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A line and a column, both from 1; a column is a byte.
struct Place {
    std::uint32_t line = 0;
    std::uint32_t column = 0;
};

// A name, a key or a value: the text that the gateway reads.
struct PlacedText {
    std::string text;
    Place place;
    bool isCut = false;       // bytes of the file are missing in it
    bool isVerbatim = false;  // the bytes in the file are the text: character i stands at place + i
};

struct OutlineAttribute {
    PlacedText key;
    PlacedText value;
};

struct OutlineSection {
    PlacedText name;
    std::vector<OutlineAttribute> attributes;
    bool isWhole = true;  // false: a syntax error ended it

    // The one that counts, the first of that key; null when there is none. Letter case does not matter.
    const OutlineAttribute* find(std::string_view key) const;
};

struct SyntaxError {
    Place place;
    std::string reason;  // what the parser expected there
};

// The gateway gives a file up at its first error. The outline goes on with the next line that begins a
// section, so that all errors show at once; a section with an error holds what stands before it. A section's
// name that runs over a line's end, which the gateway would take, counts as an error: nobody means that.
class Outline {
  public:
    explicit Outline(std::string content);

    const std::vector<OutlineSection>& sections() const { return sections_; }
    const std::vector<SyntaxError>& errors() const { return errors_; }
    bool parses() const { return parses_; }  // whether the gateway takes the file

    // The section that counts, the first of that name; null when there is none.
    const OutlineSection* find(std::string_view name) const;

    std::string_view line(std::uint32_t number) const;  // without its end
    // The key that the file ends in, without "=" and without a line feed: the gateway drops it. Line 0: there is none.
    Place droppedKey() const;
    std::vector<std::uint32_t> linesWithComments() const;

  private:
    Place placeOf(std::size_t offset) const;
    std::size_t parseFrom(std::size_t start);
    std::size_t nextHeaderFrom(std::uint32_t number) const;

    std::string content_;
    std::vector<std::size_t> lineStarts_;
    std::vector<OutlineSection> sections_;
    std::vector<SyntaxError> errors_;
    bool parses_ = false;
};

// Whether two names or keys are the same to the gateway.
bool sameName(std::string_view a, std::string_view b);

std::string lineOf(const PlacedText& text);  // "line 7"
