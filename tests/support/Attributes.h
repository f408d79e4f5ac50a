// Attribute lists written as pairs.
#pragma once

#include <utility>
#include <vector>

#include "config/AttributeList.h"

namespace support {

using Pairs = std::vector<std::pair<const char*, const char*>>;

inline AttributeList listOf(const Pairs& pairs) {
    AttributeList list;
    for (const auto& [key, value] : pairs)
        list.addAttribute(key, value);
    return list;
}

}  // namespace support
