// The answers of the statistics bean as call data: a form byte, then objects as the JDK's
// serialiser writes them. The call data is what follows the exception flag of an admin reply.
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

// One class as a stream describes it: its serialVersionUID and its flags (SC_...). Its objects have
// no fields: whatever they hold is block data.
struct ClassDesc {
  std::string name;
  std::uint64_t version = 0;
  std::uint8_t flags = 0;
};

// The classes in the stream of one response: the response's own, its superclass, and that of each
// statistic.
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

// The answer to one element of a query. With a negative rc the items are not written.
struct Response {
  std::string query;
  std::int32_t rc = 0;
  std::variant<Ids, Stats> items;
  std::optional<ResponseClasses> classes = {};  // none: the simulator's own
};

struct Answer {
  bool isList = false;  // false: exactly one response, written without a count
  std::vector<Response> responses;
};

// How the head of a response, which holds all ids, is written if it is longer than 1,024 bytes: cut
// into blocks as the JDK's serialiser does it, or as one block, as some gateways write it.
enum class HeadBlocks { kCut, kOne };

// Both throw std::length_error for a text of more than 65,535 bytes; encodeAnswer also throws
// std::invalid_argument for an answer that is no list and has not exactly one response.
Bytes encodeAnswer(const Answer& answer, HeadBlocks blocks = HeadBlocks::kCut);
Bytes encodeResponse(const Response& response, HeadBlocks blocks = HeadBlocks::kCut);

// The "protocol" attribute: a string object.
Bytes encodeProtocol(std::string_view version);

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_ENCODER_H
