// What is wrong, or likely to be, in a configuration file.
#pragma once

#include <string>
#include <vector>

#include "Outline.h"

struct Finding {
    bool isError = false;  // the gateway ends with error 601: for every client when the file does not parse
    Place place;           // line 0: of the file as a whole
    std::string message;
    std::string remedy;
};

// In the order of the file.
std::vector<Finding> findingsIn(const Outline& outline);
