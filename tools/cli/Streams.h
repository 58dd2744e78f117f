// The standard streams of a program of this project.
#pragma once

#include <string>

namespace orvel::cli {

// Before anything else in main(): a standard stream that is closed must not become some socket that is then written to,
// and writing into a closed pipe becomes an error that can be told.
void prepareStreams();

// Throws std::runtime_error, saying cannotWrite(), when something that was printed could not be written.
void flushOutput();

// What to say of standard output after an error, an errno.
std::string cannotWrite(int error);

}  // namespace orvel::cli
