// Small helpers for texts: formatting, and making foreign bytes fit to be printed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// As printf.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Text from a client for one line of a log: control characters and quotes as \xNN, so that nobody can forge a
// line; cut after a few hundred characters.
std::string printable(std::string_view text);

// Whether the text holds a control character: such a text has no place in an HTTP header.
bool hasControlCharacter(std::string_view text);

// The pieces between the separators, empty ones included: one more than there are separators.
std::vector<std::string> split(std::string_view text, char separator);

// A whole unsigned number, decimal or hexadecimal after "0x"; none for anything else.
std::optional<std::uint64_t> parseNumber(std::string_view text);

// Case-insensitive for ASCII letters, whatever the locale.
bool startsWithIgnoringCase(std::string_view text, std::string_view start);
