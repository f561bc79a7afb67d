// prometheus.h as zebstat implements it.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "prometheus.h"

namespace zebtool {

void switchToPrometheus(char** argv) {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self);
  std::string folder(self, length > 0 ? static_cast<std::size_t>(length) : 0);
  folder.erase(folder.rfind('/') + 1);
  // A build has it beside zebstat, an installation in the libexec folder.
  for (const char* place : {"zebstat-prometheus", ZEBSTAT_LIBEXEC "/zebstat-prometheus"}) {
    execv((folder + place).c_str(), argv);
    if (errno != ENOENT) break;
  }
  throw Fault(kUsage, "cannot start zebstat-prometheus, which is installed with zebstat: " +
                          std::string(std::strerror(errno)));
}

std::string renderPrometheus(const Report&) {
  throw std::logic_error("zebstat has not switched");
}

int serveMetrics(const Options&) {
  throw std::logic_error("zebstat has not switched");
}

}  // namespace zebtool
