// Bytes from a gateway as text that can be shown, and as numbers where they are some.
#ifndef ZEBSTAT_TEXT_H
#define ZEBSTAT_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zebtool {

// The modified UTF-8 of the wire (NUL in two bytes, surrogates in three each) as valid UTF-8. Bytes
// that are neither become U+FFFD.
std::string toUtf8(std::string_view bytes);

// Valid UTF-8 on one line with nothing that moves a cursor: control characters become \n or \x1B.
std::string toShown(std::string_view bytes);

// Columns that a terminal needs for valid UTF-8, and the text cut to N columns.
std::size_t columnsOf(std::string_view utf8);
std::string cutToColumns(std::string_view utf8, std::size_t columns);

// Whether the text is a number as JSON writes it.
bool isJsonNumber(std::string_view text);

// The whole text as a finite decimal number, if it is one.
std::optional<long double> parseNumber(std::string_view text);

// Without an exponent and without trailing zeros.
std::string showNumber(long double value, int decimals);

}  // namespace zebtool

#endif  // ZEBSTAT_TEXT_H
