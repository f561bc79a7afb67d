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

// Returns valid UTF-8 on one line. Characters that move the cursor, turn the direction of writing
// or cannot be seen are escaped, as \n, \x1B or \u200B, so that a text of a gateway cannot pretend
// to be another or to come from the program.
std::string toShown(std::string_view bytes);

// Returns the text as a JSON string; what toShown() escapes is written as \u001b or \u200b.
std::string quoteJson(std::string_view bytes);

// Returns what toShown() returns as a cell of CSV. An apostrophe keeps a spreadsheet from taking a
// text that is no number for a formula.
std::string toCsvCell(std::string_view bytes);

// Returns the number of columns that a terminal needs for valid UTF-8.
std::size_t columnsOf(std::string_view utf8);

// Returns as many characters from the start as fit into the columns.
std::string cutToColumns(std::string_view utf8, std::size_t columns);

// Returns the number if the whole text is one as JSON writes it, and fits into a double. Every
// format and command takes the same texts for numbers.
std::optional<long double> parseNumber(std::string_view text);

// Parses a number that a person has typed, who may leave out the digit before the point.
std::optional<long double> parseTyped(std::string_view text);

// Writes a number with at most that many decimals, without trailing zeros and, below 1e30, without
// an exponent.
std::string showNumber(long double value, int decimals);

}  // namespace zebtool

#endif  // ZEBTOOL_TEXT_H
