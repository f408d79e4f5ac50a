#include "Server/Common_Classes/UType.h"

namespace {

using CaseTable = std::array<std::int32_t, 256>;

constexpr CaseTable makeIdentity() {
    CaseTable table{};
    for (std::int32_t c = 0; c < 256; ++c)
        table[static_cast<std::size_t>(c)] = c;
    return table;
}

constexpr void shift(CaseTable& table, std::size_t first, std::size_t last, std::int32_t by) {
    for (std::size_t c = first; c <= last; ++c)
        table[c] += by;
}

constexpr CaseTable makeUpper() {
    CaseTable table = makeIdentity();
    shift(table, 'a', 'z', -0x20);
    shift(table, 0xE0, 0xFF, -0x20);
    table[0xE9] = 'e';
    table[0xC9] = 'e';
    return table;
}

constexpr CaseTable makeLower() {
    CaseTable table = makeIdentity();
    shift(table, 'A', 'Z', 0x20);
    shift(table, 0xC0, 0xDF, 0x20);
    return table;
}

}  // namespace

constexpr CaseTable k2upper = makeUpper();
constexpr CaseTable k2lower = makeLower();
