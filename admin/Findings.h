// What is wrong, or likely to be, in a configuration file.
#pragma once

#include <string>
#include <vector>

#include "Outline.h"

struct Finding {
    bool isError = false;  // clients cannot be served, or not by a server that is named for them
    Place place;           // line 0: of the file as a whole
    std::string message;
    std::string remedy;
};

// In the order of the file.
std::vector<Finding> findingsIn(const Outline& outline);
