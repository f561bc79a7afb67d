// prometheus.h as zebstat implements it.
#include <stdexcept>

#include "execute.h"
#include "prometheus.h"

namespace zebtool {

void switchToPrometheus(char** argv) {
  std::string reason = executeProgram("zebstat-prometheus", argv);
  if (reason.empty()) reason = "it is not installed; its Debian package is zebstats-tools";
  throw Fault(kUsage, "cannot start zebstat-prometheus: " + reason);
}

std::string renderPrometheus(const std::vector<Report>&) {
  throw std::logic_error("zebstat has not switched");
}

}  // namespace zebtool
