#include "Command.h"

#include <algorithm>
#include <iostream>

#include "common/Text.h"

bool beginsCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
}

void print(const Json& document) {
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

std::string shown(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (hasControlCharacter({&c, 1})) {
            result += format("\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
        } else {
            result += c;
        }
    }
    return result;
}

std::size_t widthOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), beginsCharacter));
}

std::string padded(const std::string& text, std::size_t width) {
    return text + std::string(width - std::min(widthOf(text), width), ' ');
}
