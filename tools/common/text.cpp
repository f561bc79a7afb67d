#include "text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace zebtool {

namespace {

constexpr std::uint32_t kReplacement = 0xFFFD;
constexpr std::uint32_t kNone = 0xFFFFFFFF;

struct Character {
  std::uint32_t code = kNone;  // kNone: the bytes are not a character
  std::size_t length = 1;
};

// Reads the character at the index; a surrogate counts as one.
Character readCharacter(std::string_view bytes, std::size_t at) {
  auto byte = [&](std::size_t i) -> std::uint32_t {
    return static_cast<unsigned char>(bytes[at + i]);
  };
  std::uint32_t first = byte(0);
  if (first < 0x80) return {first, 1};
  std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC0 || first > 0xF4 || length > bytes.size() - at) return {};
  std::uint32_t code = first & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {};
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr std::uint32_t kLowestCode[] =  // by length; a lower code is an overlong form
      {0, 0, 0x80, 0x800, 0x10000};
  bool isNul = length == 2 && code == 0;
  if ((code < kLowestCode[length] && !isNul) || code > 0x10FFFF) return {};
  return {code, length};
}

void appendCharacter(std::string& out, std::uint32_t code) {
  auto put = [&](std::uint32_t byte) { out += static_cast<char>(byte); };
  if (code < 0x80) return put(code);
  if (code < 0x800) {
    put(0xC0 | code >> 6);
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
  }
  put(0x80 | (code & 0x3F));
}

struct Span {
  std::uint32_t first, last;
};

template <std::size_t count>
bool isIn(const Span (&spans)[count], std::uint32_t code) {
  return std::any_of(std::begin(spans), std::end(spans),
                     [code](const Span& span) { return span.first <= code && code <= span.last; });
}

// Characters that move the cursor, turn the direction of writing, or cannot be seen.
bool isHidden(std::uint32_t code) {
  constexpr Span kHidden[] = {
      {0, 0x1F},          {0x7F, 0x9F},       {0xAD, 0xAD},       {0x34F, 0x34F},
      {0x61C, 0x61C},     {0x115F, 0x1160},   {0x17B4, 0x17B5},   {0x180B, 0x180F},
      {0x200B, 0x200F},   {0x2028, 0x202E},   {0x2060, 0x206F},   {0x3164, 0x3164},
      {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFB},
      {0x13430, 0x1343F}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}};
  bool isPlain = code >= 0x20 && code < 0x7F;  // most are
  return !isPlain && isIn(kHidden, code);
}

// Appends the prefix, which begins an escape, and the code in that many hexadecimal digits.
void appendHex(std::string& out, const char* prefix, std::uint32_t code, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*X", digits, code);
  out += prefix;
  out += text;
}

// Appends valid UTF-8, with an escape for each character that isEscaped selects.
template <typename Select, typename Escape>
std::string escapeSome(std::string_view utf8, Select isEscaped, Escape escape) {
  std::string out;
  for (std::size_t at = 0; at < utf8.size();) {
    Character character = readCharacter(utf8, at);
    if (isEscaped(character.code)) {
      escape(out, character.code);
    } else {
      out.append(utf8, at, character.length);
    }
    at += character.length;
  }
  return out;
}

bool isPlainAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

// Returns 2 for characters that terminals draw two columns wide, 0 for those that they draw onto
// the previous character, otherwise 1.
std::size_t columnsOfCharacter(std::uint32_t code) {
  constexpr Span kCombining[] = {
      {0x300, 0x36F}, {0x200B, 0x200F}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}};
  constexpr Span kWide[] = {{0x1100, 0x115F},   {0x2E80, 0xA4CF},  {0xAC00, 0xD7A3},
                            {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},  {0xFF00, 0xFF60},
                            {0x1F300, 0x1FAFF}, {0x20000, 0x3FFFD}};
  if (isIn(kCombining, code)) return 0;
  return isIn(kWide, code) ? 2 : 1;
}

// Returns whether the text is a number as JSON writes it.
bool isJsonNumber(std::string_view text) {
  std::size_t at = 0;
  auto skipDigits = [&] {
    std::size_t start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    return at - start;
  };
  auto skip = [&](std::string_view any) {
    bool is = at < text.size() && any.find(text[at]) != std::string_view::npos;
    if (is) ++at;
    return is;
  };
  skip("-");
  bool hasLeadingZero = at < text.size() && text[at] == '0';
  std::size_t digits = skipDigits();
  if (digits == 0 || (hasLeadingZero && digits > 1)) return false;
  if (skip(".") && skipDigits() == 0) return false;
  if (skip("eE")) {
    skip("+-");
    if (skipDigits() == 0) return false;
  }
  return at == text.size();
}

}  // namespace

std::string toUtf8(std::string_view bytes) {
  if (isPlainAscii(bytes)) return std::string(bytes);
  std::string out;
  for (std::size_t at = 0; at < bytes.size();) {
    Character character = readCharacter(bytes, at);
    at += character.length;
    bool isHigh = character.code >= 0xD800 && character.code < 0xDC00;
    Character low = isHigh && at < bytes.size() ? readCharacter(bytes, at) : Character();
    if (isHigh && low.code >= 0xDC00 && low.code < 0xE000) {
      at += low.length;
      character.code = 0x10000 + ((character.code - 0xD800) << 10) + (low.code - 0xDC00);
    }
    bool isGood = character.code != kNone && (character.code < 0xD800 || character.code >= 0xE000);
    appendCharacter(out, isGood ? character.code : kReplacement);
  }
  return out;
}

std::string toShown(std::string_view bytes) {
  if (isPlainAscii(bytes)) return std::string(bytes);
  return escapeSome(toUtf8(bytes), isHidden, [](std::string& out, std::uint32_t code) {
    if (code == '\n') {
      out += "\\n";
    } else {
      int digits = code < 0x100 ? 2 : code < 0x10000 ? 4 : 8;
      appendHex(out, digits == 2 ? "\\x" : digits == 4 ? "\\u" : "\\U", code, digits);
    }
  });
}

std::string quoteJson(std::string_view bytes) {
  auto isEscaped = [](std::uint32_t code) { return isHidden(code) || code == '"' || code == '\\'; };
  auto escape = [](std::string& out, std::uint32_t code) {
    if (code == '"' || code == '\\') {
      out += {'\\', static_cast<char>(code)};
    } else if (code == '\n') {
      out += "\\n";
    } else if (code < 0x10000) {
      appendHex(out, "\\u", code, 4);
    } else {
      appendHex(out, "\\u", 0xD800 + ((code - 0x10000) >> 10), 4);
      appendHex(out, "\\u", 0xDC00 + (code & 0x3FF), 4);
    }
  };
  return '"' + escapeSome(toUtf8(bytes), isEscaped, escape) + '"';
}

std::string toCsvCell(std::string_view bytes) {
  std::string text = toShown(bytes);
  bool isFormula = !text.empty() && std::string_view("=+-@").find(text[0]) != std::string::npos;
  if (isFormula && !parseNumber(text)) text.insert(0, "'");
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

std::size_t columnsOf(std::string_view utf8) {
  if (isPlainAscii(utf8)) return utf8.size();
  std::size_t columns = 0;
  for (std::size_t at = 0; at < utf8.size();) {
    Character character = readCharacter(utf8, at);
    columns += columnsOfCharacter(character.code);
    at += character.length;
  }
  return columns;
}

std::string cutToColumns(std::string_view utf8, std::size_t columns) {
  std::size_t at = 0;
  for (std::size_t used = 0; at < utf8.size();) {
    Character character = readCharacter(utf8, at);
    used += columnsOfCharacter(character.code);
    if (used > columns) break;
    at += character.length;
  }
  return std::string(utf8.substr(0, at));
}

std::optional<long double> parseNumber(std::string_view text) {
  if (!isJsonNumber(text)) return std::nullopt;
  const std::string number(text);
  long double value = std::strtold(number.c_str(), nullptr);
  if (std::fabs(value) > std::numeric_limits<double>::max()) return std::nullopt;
  return value;
}

std::optional<long double> parseTyped(std::string_view text) {
  std::string number(text);
  std::size_t start = number.starts_with('-') ? 1 : 0;
  if (number.find('.') == start) number.insert(start, "0");
  return parseNumber(number);
}

std::string showNumber(long double value, int decimals) {
  char digits[64];
  if (std::fabs(value) >= 1e30L) {
    std::snprintf(digits, sizeof digits, "%.6Lg", value);
    return digits;
  }
  std::snprintf(digits, sizeof digits, "%.*Lf", decimals, value);
  std::string text = digits;
  if (text.find('.') != std::string::npos) {
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
  }
  return text == "-0" ? "0" : text;
}

}  // namespace zebtool
