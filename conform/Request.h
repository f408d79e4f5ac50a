// Request: what the gateway sends first.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "common/Frame.h"

struct Request {
    std::uint32_t fileTime = 0;
    std::string body;
    std::array<std::string, QUIL_PARAM_NONE> values;

    std::string& operator[](TQUILReqParamID id) { return values[id]; }

    Frame frame() const;
    std::string bytes() const { return frame().bytes(); }
};
