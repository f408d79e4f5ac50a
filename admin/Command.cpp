#include "Command.h"

#include <iostream>

#include "common/Text.h"

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
