// What all programs do first.
#ifndef ZEBTOOL_STANDARD_STREAMS_H
#define ZEBTOOL_STANDARD_STREAMS_H

#include <fcntl.h>
#include <unistd.h>

namespace zebtool {

// Keeps sockets and files away from the numbers of standard streams that the caller has closed:
// they would receive what is printed. Access is open's: with O_RDONLY, printing to such a stream
// still fails.
inline void fillStandardStreams(int access) {
  int file = open("/dev/null", access);
  while (file >= 0 && file <= STDERR_FILENO) file = open("/dev/null", access);
  if (file >= 0) close(file);
}

}  // namespace zebtool

#endif  // ZEBTOOL_STANDARD_STREAMS_H
