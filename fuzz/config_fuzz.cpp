// Configuration files with any content: what is read, what a reader of one section makes of the same file,
// what is written back and read again, and how much memory all of it takes.
//
// Input: the file.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "config/ConfigFile.h"
#include "config/ConfigParser.h"

namespace {

const fuzz::MemoryFile disk(99);

// A section's name and its text as it is written: the header, the settings in the order of their keys, an
// empty line.
using Section = std::pair<std::string, std::string>;

Section take(Stanza& stanza) {
    char* bytes = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&bytes, &size);
    const bool saved = stanza.saveStanza(stream);
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owner(bytes, std::free);
    assert(saved);
    return {stanza.getStanzaName().GetTextEx(), std::string(bytes, size)};
}

// A file as it is read, up to the first fault in it.
struct Image {
    // All of the file, or the sections of that name.
    explicit Image(const std::string& content, const CText* only = nullptr) {
        const std::vector<char> exact(content.begin(), content.end());  // one byte more is found out
        ConfigParser parser(exact.data(), static_cast<std::uint32_t>(content.size()));
        const auto next = [&] { return only != nullptr ? parser.findStanza(*only) : parser.nextStanza(); };
        while (const std::unique_ptr<Stanza> stanza = next())
            sections.push_back(take(*stanza));
        error = parser.error();
    }

    std::vector<Section> sections;
    ParseError error;
};

bool isSame(const ParseError& a, const ParseError& b) {
    return a.line == b.line && a.column == b.column && std::string(a.reason) == b.reason;
}

// What a reader of one section finds: the sections of that name, and the same fault.
void checkOneSection(const std::string& content, ConfigFile& file, const Image& whole, const CText& name) {
    std::vector<Section> expected;
    for (const Section& section : whole.sections) {
        if (strcasecmp(section.first.c_str(), name.GetTextEx()) == 0) expected.push_back(section);
    }
    const Image part(content, &name);
    assert(part.sections == expected && isSame(part.error, whole.error));

    assert(file.parseStanza(name) == (whole.error.line == 0) && isSame(file.lastParseError(), whole.error));
    Stanza* first = file.getStanza(name);
    assert(expected.empty() ? first == nullptr : take(*first) == expected.front());
}

// The file after the image was written: that image or, when it cannot be written, the old file. What was
// written reads as the same image, but for a value whose last character is an escape that stands for itself:
// that can be one character too long, as only a large file has it.
void checkWriting(bool written, const std::string& content, const Image& image) {
    std::string text;
    for (const Section& section : image.sections)
        text += section.second;
    assert(disk.read() == (written ? text : content));
    if (!written || content.size() > 4095) return;
    const Image again(text);
    assert(again.error.line == 0 && again.sections == image.sections);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string content(reinterpret_cast<const char*>(data), size);
    disk.write(content);
    const Image image(content);

    ConfigFile file(disk.path().c_str(), "Velarto Client Definitions");
    {
        const fuzz::HeapWatch heap;
        assert(file.parseConfigFile() == (size > 0 && image.error.line == 0));
        assert(heap.peak() <= 4096 + 64 * size);
    }
    if (size == 0) return 0;
    assert(isSame(file.lastParseError(), image.error));
    checkWriting(file.writeFile(false), content, image);

    disk.write(content);
    checkOneSection(content, file, image, "nobody");
    if (!image.sections.empty()) checkOneSection(content, file, image, image.sections.back().first.c_str());
    return 0;
}
