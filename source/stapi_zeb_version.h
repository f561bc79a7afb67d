// The versions that the library shows. They are independent of each other.
#ifndef STAPI_ZEB_VERSION_H
#define STAPI_ZEB_VERSION_H

// The version of the interface, which getStatsAPIVersion() returns and the trace shows. Programs
// compare it, so releases of the library do not change it.
constexpr char kApiVersion[] = "1_1_0_1";
// The product whose trace format this is, and its build. Only the banner of the trace shows them,
// which programs parse, so they do not change either.
constexpr char kProductVersion[] = "8.0.0.1";
constexpr char kBuildLevel[] = "b800-20101014";

// The notice of each module with exported functions, so that `strings libzebstats.so` shows the
// release of the library. This is the version that changes with each release.
#define ZEB_NOTICE(module) \
  module " - zebstats, statistics API of the transaction gateway, version 1.3.0"

#endif
