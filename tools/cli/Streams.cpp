#include "tools/cli/Streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace orvel::cli {

void prepareStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
  std::signal(SIGPIPE, SIG_IGN);
}

void flushOutput() {
  if (std::cout) errno = 0;  // else the stream has failed already, and errno says why
  std::cout.flush();
  if (!std::cout) throw std::runtime_error(cannotWrite(errno == 0 ? EIO : errno));
}

std::string cannotWrite(int error) {
  return std::string("cannot write to standard output: ") + std::strerror(error);
}

}  // namespace orvel::cli
