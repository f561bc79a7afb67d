// Encodes the answers of the statistics bean as call data: a form byte, then objects as the JDK's
// serialiser writes them. In an admin reply the call data follow the exception flag.
#ifndef ZEBSIM_GATEWAY_ENCODER_H
#define ZEBSIM_GATEWAY_ENCODER_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "gateway_bytes.h"

namespace zebsim {

// One class as a stream describes it, with its serialVersionUID and its flags (SC_...). Its objects
// have no fields: all their content is block data.
struct ClassDesc {
  std::string name;
  std::uint64_t version = 0;
  std::uint8_t flags = 0;
};

// The classes in the stream of one response: those of the response, of its superclass and of the
// statistics.
struct ResponseClasses {
  ClassDesc reply;
  ClassDesc base;
  ClassDesc stat;
};

// Texts are bytes of modified UTF-8, written as they are.
struct Stat {
  std::string id;
  std::string value;
};

using Ids = std::vector<std::string>;
using Stats = std::vector<Stat>;

// The answer to one query element. If rc is negative, the items are not written.
struct Response {
  std::string query;
  std::int32_t rc = 0;
  std::variant<Ids, Stats> items;
  std::optional<ResponseClasses> classes = {};  // if not set, the simulator's own
};

struct Answer {
  bool isList = false;  // false: exactly one response, written without a count
  std::vector<Response> responses;
};

// How the head of a response, which includes all ids, is written if it is longer than 1,024 bytes:
// cut into blocks as the JDK's serialiser cuts it, or as one block, as some gateways write it.
enum class HeadBlocks { kCut, kOne };

// Both throw std::length_error for a text of more than 65,535 bytes. encodeAnswer throws
// std::invalid_argument if the answer is not a list and does not have exactly one response.
Bytes encodeAnswer(const Answer& answer, HeadBlocks blocks = HeadBlocks::kCut);
Bytes encodeResponse(const Response& response, HeadBlocks blocks = HeadBlocks::kCut);

// Encodes the value of the "protocol" attribute, a string object.
Bytes encodeProtocol(std::string_view version);

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_ENCODER_H
