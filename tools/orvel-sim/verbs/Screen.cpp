#include "tools/orvel-sim/verbs/Screen.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string_view>

#include "tools/cli/Streams.h"

namespace orvel::sim {
namespace {

constexpr char kEnter[] = "\x1b[?1049h\x1b[?25l";  // the alternate screen, without a cursor
constexpr char kLeave[] = "\x1b[?25h\x1b[?1049l";
constexpr int kEnding[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

void writeAll(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) throw std::runtime_error(cli::cannotWrite(errno));
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// How the terminal was, and how keys are read one by one. Of the process, since signal handlers use them.
termios g_before{};
termios g_keys{};

// These two are for signal handlers too.
void enter() {
  tcsetattr(STDIN_FILENO, TCSANOW, &g_keys);
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, kEnter, sizeof(kEnter) - 1);
}

void leave() {
  tcsetattr(STDIN_FILENO, TCSANOW, &g_before);
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, kLeave, sizeof(kLeave) - 1);
}

// At once, also while the program waits for a device that does not answer.
void end(int) {
  leave();
  _exit(0);
}

void suspend(int) {
  const int error = errno;
  leave();
  raise(SIGSTOP);
  enter();
  errno = error;
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;  // which interrupts poll()
  sigaction(signal, &action, nullptr);
}

}  // namespace

Screen::Screen() {
  tcgetattr(STDIN_FILENO, &g_before);
  g_keys = g_before;
  g_keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  for (const int signal : kEnding) handle(signal, end);
  handle(SIGTSTP, suspend);
  handle(SIGWINCH, [](int) {});
  enter();
}

Screen::~Screen() {
  leave();
  for (const int signal : kEnding) handle(signal, SIG_DFL);
  for (const int signal : {SIGTSTP, SIGWINCH}) handle(signal, SIG_DFL);
}

ScreenSize Screen::size() const {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 && size.ws_row != 0;
  return known ? ScreenSize{size.ws_col, size.ws_row} : ScreenSize{80, 24};
}

void Screen::show(const std::string& text) {
  std::string drawn = "\x1b[H";
  for (const char c : text) drawn += c == '\n' ? std::string("\x1b[K\r\n") : std::string(1, c);
  writeAll(drawn + "\x1b[K\x1b[J");
}

bool Screen::wait(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0) return true;
    pollfd keys{STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&keys, 1, static_cast<int>(left));
    if (ready < 0) return true;
    if (ready == 0) continue;
    char key = 'q';  // also for the end of the input
    if (read(STDIN_FILENO, &key, 1) < 0 && errno == EINTR) continue;
    if (key == 'q' || key == 'Q') return false;
  }
}

}  // namespace orvel::sim
