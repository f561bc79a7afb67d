// Converts bytes from a gateway to text that can be shown, and to numbers.
#ifndef ZEBTOOL_TEXT_H
#define ZEBTOOL_TEXT_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zebtool {

// Converts the modified UTF-8 of the wire (NUL in two bytes, surrogates in three each) to valid
// UTF-8. Bytes that are neither become U+FFFD.
std::string toUtf8(std::string_view bytes);

// Returns valid UTF-8 on one line. Control, bidirectional and zero-width characters are escaped, as
// \n, \x1B or \u202E, so that no text of a gateway moves the cursor or hides a part of itself.
std::string toShown(std::string_view bytes);

// Returns the number of columns that a terminal needs for valid UTF-8.
std::size_t columnsOf(std::string_view utf8);

// Returns as many characters from the start as fit into the columns.
std::string cutToColumns(std::string_view utf8, std::size_t columns);

// Returns whether the text is a number as JSON writes it.
bool isJsonNumber(std::string_view text);

// Returns the number if the whole text is a finite decimal number.
std::optional<long double> parseNumber(std::string_view text);

// Writes a number with at most that many decimals, without trailing zeros and, below 1e30, without
// an exponent.
std::string showNumber(long double value, int decimals);

}  // namespace zebtool

#endif  // ZEBTOOL_TEXT_H
