// How a command line of this project fails: by its exit status, a line on standard error and, with --json, one more
// line on standard output. That line is described by failure.schema.json beside this file.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace orvel::cli {

enum ExitStatus : int { kSuccess = 0, kFailed = 1, kUsage = 2, kNoDevice = 3, kTimedOut = 4, kNotBound = 5 };

// How an exit status tells that a signal ended the program.
constexpr int kSignalled = 128;

struct Failure {
  int exitStatus = kFailed;  // an ExitStatus, or kSignalled + the number of a signal
  std::string message;       // for people, without the program's name
  // Empty where there is nothing to say.
  std::string query{};      // what was being done
  std::string service{};    // the name of the one that was asked
  std::string directory{};  // where a device was looked for
  std::string reason{};     // why a call failed, in a word: "died"
  int code = 0;             // of the exception, or the errno value that the call failed with; 0 for neither
};

// {"error": {...}}, in one line without its end. The first failure is the one that gives the exit status; "further"
// lists the others. Bytes that are not UTF-8 are replaced.
std::string envelope(const std::vector<Failure>& failures);

// Writes "PROGRAM: MESSAGE" to standard error.
void complain(const std::string& program, const std::string& message);

// "PROGRAM: ", as it stands in front of what went wrong.
std::string failurePrefix(const std::string& program);

// Says that a program failed outside of everything that says so itself; returns the exit status. `said` says that
// standard error has the message already.
int fail(const std::string& program, const Failure& failure, bool json, bool said = false);

// Whether a command line asks for JSON, for when it cannot be read in full.
bool asksForJson(int argc, const char* const* argv);

}  // namespace orvel::cli
