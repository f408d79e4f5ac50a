// ParseError: where and why the reading of a configuration file stopped.
#pragma once

#include <cstdint>

// Where and why a parse stopped. A fault in the file's text has a line and a column, both from 1 (a column is
// a byte); for a file that could not be read, or held in memory, both are 0, and systemError is the errno of
// what failed, if it has one.
struct ParseError {
    const char* reason = "";  // empty when nothing went wrong
    std::uint32_t line = 0;
    std::uint32_t column = 0;
    int systemError = 0;
};
