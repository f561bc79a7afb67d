// A host that has functions and data of its own under each inner name that the library exports, and
// makes each public call.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "public_calls.h"

extern "C" {
#define FUNCTION(name)                          \
  void name() {                                 \
    std::_Exit(std::puts(#name " was called")); \
  }
#define DATA(name) char name[4096] = "the host's";
#include "inner_names.inc"
#undef FUNCTION
#undef DATA
}

int main(int, char** argv) {
  zebtest::Variables variables;
  for (const zebtest::PublicCall& call : zebtest::kPublicCalls) {
    if (variables.make(call, std::atoi(argv[1]), 5, argv[2]) != 0) return std::puts(call.name);
    if (call.kind == zebtest::Kind::kOpen) std::free(variables.text);
  }
  static const char untouched[4096] = "the host's";
#define FUNCTION(name)
#define DATA(name) \
  if (std::memcmp(name, untouched, sizeof untouched) != 0) return std::puts(#name " was changed");
#include "inner_names.inc"
}
