// contains: that a text has a part, told with the text when it has not.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace support {

inline testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no '" << part << "' in:\n" << text;
}

}  // namespace support
