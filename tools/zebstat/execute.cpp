#include "execute.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace zebtool {

std::string executeProgram(const std::string& name, char** argv) {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self);
  if (length < 0) return std::string("cannot read /proc/self/exe: ") + std::strerror(errno);
  std::string folder(self, static_cast<std::size_t>(length));
  folder.erase(folder.rfind('/') + 1);
  // A build has it beside zebstat, an installation there or in the libexec folder.
  for (const char* place : {"", ZEBSTAT_LIBEXEC "/"}) {
    execv((folder + place + name).c_str(), argv);
    if (errno != ENOENT) return std::strerror(errno);
  }
  return {};
}

}  // namespace zebtool
