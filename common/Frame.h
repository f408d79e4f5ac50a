// Frame: a message of the protocol as plain bytes, so that each of its fields can be made wrong.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "protocol/QuilTypes.h"

constexpr std::string_view kFrameMark = "QUIL";
constexpr std::string_view kFrameFooter = "END!";

std::string number(std::uint32_t value);
std::string counted(std::string_view bytes);  // a text or a block: its length, then its bytes

struct Frame {
    std::uint32_t type;
    std::string fields = {};
    std::string mark = std::string(kFrameMark);
    std::uint32_t version = QUIL_PROTOCOL_VERSION;
    std::string footer = std::string(kFrameFooter);

    std::string bytes() const { return mark + number(version) + number(type) + fields + footer; }
};
