#include "wire/Drip.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Server/Common_Classes/MemoryWatch.h"

namespace {

constexpr std::uint32_t kMarkSize = 4;
constexpr char kFrameMark[] = "QUIL";
constexpr char kFooter[] = "END!";

// A length on the wire is only a claim. Up to here it is taken at its word; beyond, memory grows with the
// bytes that really arrive.
constexpr std::uint32_t kTrustedSize = 1024 * 1024;

}  // namespace

bool Drip::marshallHeader(std::uint32_t type, std::uint32_t version) {
    return writeBuffer(kFrameMark, kMarkSize) && marshallULONG(version) && marshallULONG(type);
}

bool Drip::marshallFooter() {
    return writeBuffer(kFooter, kMarkSize) && flushBuffer();
}

bool Drip::unmarshallHeader(std::uint32_t& type, std::uint32_t& version) {
    return readMark(kFrameMark) && unmarshallULONG(version) && unmarshallULONG(type);
}

bool Drip::unmarshallFooter() {
    return readMark(kFooter);
}

bool Drip::marshallULONG(std::uint32_t value) {
    const std::uint32_t wire = makeNetworkNumber(value);
    return writeBuffer(&wire, sizeof wire);
}

bool Drip::unmarshallULONG(std::uint32_t& value) {
    value = 0;
    std::uint32_t wire = 0;
    if (!readBuffer(&wire, sizeof wire)) return false;
    value = makeHostNumber(wire);
    return true;
}

bool Drip::marshallRETCODE(bool ok) {
    return marshallULONG(ok ? 1 : 0);
}

bool Drip::unmarshallRETCODE(bool& ok) {
    std::uint32_t value = 0;
    const bool done = unmarshallULONG(value);
    ok = value != 0;
    return done;
}

bool Drip::marshallText(const CText& text) {
    return marshallULONG(text.Length()) &&
           (text.Length() == 0 || writeBuffer(text.GetBuffer(), text.Length()));
}

bool Drip::unmarshallText(CText& text) {
    std::uint32_t length = 0;
    constexpr std::uint32_t kTerminator = 1;
    if (!unmarshallULONG(length)) return false;
    const bool done = readBlock(text, length, kTerminator);
    // Characters of a text that broke off may lie over the old terminator.
    text.SetUsableDataSize(done ? length : text.Length());
    return done;
}

bool Drip::marshallData(const CData& data) {
    return marshallULONG(data.GetDataSize()) &&
           (data.GetDataSize() == 0 || writeBuffer(data.GetBuffer(), data.GetDataSize()));
}

bool Drip::unmarshallData(CData& data) {
    std::uint32_t size = 0;
    if (!unmarshallULONG(size)) return false;
    data.Clear();
    if (size == 0) return true;
    return readBlock(data, size, 0) && data.SetDataSize(size) == size;
}

bool Drip::marshallAttribute(const Attribute& attribute) {
    return marshallText(attribute.key()) && marshallText(attribute.value());
}

bool Drip::unmarshallAttribute(Attribute& attribute) {
    return unmarshallText(attribute.key()) && unmarshallText(attribute.value());
}

bool Drip::marshallAttributeList(const AttributeList& list) {
    if (!marshallULONG(list.length())) return false;
    for (ListIterators<Attribute> it(list.attributes()); !it.isDone(); it.next()) {
        if (!marshallAttribute(it.currentItem())) return false;
    }
    return true;
}

bool Drip::unmarshallAttributeList(AttributeList*& list) {
    const MemoryWatch memory;
    list = new (std::nothrow) AttributeList;
    std::uint32_t count = 0;
    if (list == nullptr || !unmarshallULONG(count)) return false;
    Attribute scratch;
    for (; count > 0; --count) {
        scratch.clearAttribute();
        if (!unmarshallAttribute(scratch)) return false;
        list->addAttribute(scratch);
    }
    return !memory.ranOut();
}

bool Drip::readMark(const char* mark) {
    char got[kMarkSize];
    if (!readBuffer(got, kMarkSize)) return false;
    if (std::memcmp(got, mark, kMarkSize) == 0) return true;
    markStreamBad();
    return false;
}

// Reads size bytes into the block's buffer and leaves room for reserve bytes after them. A block that cannot
// hold them fails before anything is read, as far as the size can be believed. A larger buffer stays as it
// is: the next piece of a body will need it again.
bool Drip::readBlock(CData& block, std::uint32_t size, std::uint32_t reserve) {
    if (size > 0xFFFFFFFFu - reserve) return false;
    std::uint32_t done = 0;
    do {
        const std::uint32_t step = std::min(size - done, std::max(done, kTrustedSize));
        const std::uint32_t needed = done + step + reserve;
        if (block.GetBufferSize() < needed && !block.SetBufferSize(needed)) return false;
        if (!readBuffer(block.GetBuffer() + done, step)) return false;
        done += step;
    } while (done < size);
    return true;
}
