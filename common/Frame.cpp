#include "common/Frame.h"

std::string number(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift & 0xFF);
    return bytes;
}

std::string counted(std::string_view bytes) {
    return number(static_cast<std::uint32_t>(bytes.size())).append(bytes);
}
