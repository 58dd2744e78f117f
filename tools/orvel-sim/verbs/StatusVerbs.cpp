#include "tools/orvel-sim/verbs/StatusVerbs.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "device/Traffic.h"
#include "tools/cli/Colour.h"
#include "tools/cli/Failure.h"
#include "tools/cli/Options.h"
#include "tools/cli/Text.h"
#include "tools/orvel-sim/host/Devices.h"
#include "tools/orvel-sim/verbs/ControlMessages.h"
#include "tools/orvel-sim/verbs/Screen.h"
#include "tools/orvel-sim/verbs/StatusText.h"

namespace orvel::sim {
namespace {

constexpr std::chrono::seconds kPeriod(1);

// What is to be done stands out on a terminal.
std::string shownLine(const std::string& line) {
  return line.rfind("! ", 0) == 0 ? cli::coloured(STDOUT_FILENO, cli::Colour::kRed, line) : line;
}

void printStatus() {
  const Json status = ask("status");
  if (isJson()) return print(cli::jsonText(status));
  for (const std::string& line : statusLines(status)) print(shownLine(line));
}

// The lines that fit on the screen; where some do not, the last one says so.
std::string screenful(const std::vector<std::string>& lines, ScreenSize size) {
  std::string text;
  const std::size_t rows = std::max<std::size_t>(size.rows, 2);
  const bool fits = lines.size() < rows;
  const std::size_t shown = fits ? lines.size() : rows - 2;
  for (std::size_t n = 0; n < shown; ++n) text += shownLine(cli::cutTo(lines[n], size.columns)) + "\n";
  if (!fits) text += "... and " + std::to_string(lines.size() - shown) + " lines more: orvel-sim status\n";
  return text + cli::cutTo("q ends", size.columns);
}

void runTop(const std::optional<std::uint64_t>& count) {
  if (isatty(STDOUT_FILENO) == 0 || isatty(STDIN_FILENO) == 0 || isJson()) {
    if (!count && !isJson()) cli::complain("orvel-sim", "top: this is not a terminal, so it shows the device once");
    for (std::uint64_t n = 0; n < count.value_or(1); ++n) {
      if (n != 0) {
        if (!isJson()) print("");
        std::this_thread::sleep_for(kPeriod);
      }
      printStatus();
    }
    return;
  }
  Screen screen;
  for (std::uint64_t n = 0; !count || n < *count; ++n) {
    if (n != 0 && !screen.wait(kPeriod)) return;
    screen.show(screenful(statusLines(ask("status")), screen.size()));
  }
}

void listDevices() {
  const std::vector<FoundDevice> devices = runningDevices();
  if (devices.empty() && !isJson()) return print("no device runs; start one: orvel-sim run");
  for (const FoundDevice& each : devices) {
    if (isJson()) {
      Json device = {{"directory", each.directory}, {"name", nullptr}, {"pid", each.pid}, {"sinceMs", each.sinceMs}};
      if (!each.name.empty()) device["name"] = each.name;
      print(cli::jsonText(device));
      continue;
    }
    const std::string name = each.name.empty() ? "-" : each.name;
    print(cli::padded(name, 16) + "process " + std::to_string(each.pid) + " since " +
          clockTime(each.sinceMs).substr(0, 8) + "  " + cli::printable(each.directory));
  }
}

}  // namespace

void addStatusVerbs(CLI::App& app) {
  CLI::App* status = app.add_subcommand("status", "Show the device on one screen");
  status->callback(printStatus);
  status->footer(
      "Services and their lives, clients and what each has registered, the faults in\n"
      "force and how often each has struck; at the end, what to do about what is wrong.");

  const auto count = std::make_shared<std::optional<std::uint64_t>>();
  CLI::App* top = app.add_subcommand("top", "Show the device on one screen, anew each second, until q or Ctrl-C");
  cli::asCount(top->add_option("--count", *count, "so often, then end"));
  top->callback([count] { runTop(*count); });

  CLI::App* devices = app.add_subcommand("devices", "List your devices that run");
  devices->callback(listDevices);
  devices->footer("orvel-sim --device NAME, or its directory, in front of a verb chooses one of them.");
}

}  // namespace orvel::sim
