// What the library calls itself.
#ifndef STAPI_ZEB_VERSION_H
#define STAPI_ZEB_VERSION_H

constexpr char kApiVersion[] = "1_1_0_1";
constexpr char kProductVersion[] = "8.0.0.1";
constexpr char kBuildLevel[] = "b800-20101014";

// The notice that each module exports, so that `strings` shows the version.
#define ZEB_NOTICE(module) \
  module " - zebstats, statistics API of the transaction gateway, version 1.3.0"

#endif
