#include "output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "fault.h"
#include "process.h"
#include "text.h"

namespace zebtool {

namespace {

// Returns 0, or the errno of the failure.
int writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    ssize_t written = write(file, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN) {  // somebody made the pipe non-blocking
      pollfd room{file, POLLOUT, 0};
      poll(&room, 1, -1);
      continue;
    }
    if (written < 0) return errno;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

Fault makeFileFault(const std::string& option, const std::string& path, const std::string& what) {
  return {kUsage, option + ": cannot write '" + path + "': " + what +
                      "; name a file of your own, in a folder that can be written to"};
}

std::string folderOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

// Returns the file to which the path leads; only its folder must exist.
std::string followLinks(std::string path) {
  constexpr int kMaxLinks = 40;  // as many as the kernel follows
  char target[PATH_MAX];
  for (int links = 0; links < kMaxLinks; ++links) {
    ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0) break;
    std::string_view next(target, static_cast<std::size_t>(length));
    path = (next.starts_with('/') ? "" : folderOf(path)).append(next);
  }
  return path;
}

}  // namespace

void printMessage(const std::string& message) {
  writeAll(STDERR_FILENO,
           program_invocation_short_name + std::string(": ") + toShown(message) + "\n");
}

void printUnlessFull(const std::string& message) {
  static std::mutex mutex;  // no other thread fills the pipe before the message is written
  std::lock_guard lock(mutex);
  pollfd room{STDERR_FILENO, POLLOUT, 0};
  if (poll(&room, 1, 0) == 1 && (room.revents & POLLOUT) != 0) printMessage(message);
}

// Writes parts for which there is room, so that a signal still ends the program if the reader has
// stopped.
void writeOutput(const std::string& text) {
  constexpr int kPatienceMilliseconds = 1000;
  std::optional<SignalsHeld> held(std::in_place);
  int fault = 0;
  for (std::string_view rest = text; !rest.empty() && fault == 0;) {
    pollfd room{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&room, 1, kPatienceMilliseconds) == 0) {
      held.reset();
      held.emplace();
      continue;
    }
    std::string_view part = rest.substr(0, PIPE_BUF);
    fault = writeAll(STDOUT_FILENO, part);
    rest.remove_prefix(part.size());
  }
  if (fault == EPIPE) endNow(kDone);
  if (fault != 0)
    throw Fault(kNotConnected,
                std::string("cannot write to standard output: ") + std::strerror(fault));
}

OutputFile::OutputFile(const std::string& path, std::string option)
    : path_(followLinks(path)), option_(std::move(option)) {
  struct stat found {};
  bool isThere = stat(path.c_str(), &found) == 0;
  if (isThere && !S_ISREG(found.st_mode))
    throw makeFileFault(option_, path, "it is not a regular file");
  bool mayExist = isThere || errno == ENOENT;
  if (!mayExist || access(folderOf(path_).c_str(), W_OK | X_OK) != 0)
    throw makeFileFault(option_, path, std::strerror(errno));
}

void OutputFile::replace(const std::string& text) const {
  SignalsHeld held;
  std::string temporary = path_ + ".XXXXXX";
  int file = mkstemp(temporary.data());
  if (file < 0) throw makeFileFault(option_, path_, std::strerror(errno));
  struct stat replaced {};
  mode_t mask = umask(0);
  umask(mask);
  bool isThere = stat(path_.c_str(), &replaced) == 0;
  int fault = writeAll(file, text);
  if (fault == 0 && fchmod(file, isThere ? replaced.st_mode & 07777U : 0666U & ~mask) != 0)
    fault = errno;
  if (close(file) != 0 && fault == 0) fault = errno;
  if (fault == 0 && rename(temporary.c_str(), path_.c_str()) != 0) fault = errno;
  if (fault == 0) return;
  unlink(temporary.c_str());
  throw makeFileFault(option_, path_, std::strerror(fault));
}

}  // namespace zebtool
