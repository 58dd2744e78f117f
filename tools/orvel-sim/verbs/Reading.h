// Verbs that set something read it back too: without words that say what to set, they show what is in force.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "device/Wire.h"

namespace orvel::sim {

// The part of the device's state that a verb prints, one list element per line.
struct Reading {
  std::function<Json()> read;
  // Where possible the words that would set it. With --json the JSON is printed.
  std::function<std::string(const Json&)> inWords;
};
void show(const Reading& reading, bool json);

// Gives the verb its callback and --json: it shows what is in force when it is given nothing else, and sets otherwise.
// A verb with verbs of its own, which set by themselves, needs no `set`.
void addReading(CLI::App& verb, Reading reading, std::function<void()> set = {});

// The value in the scenario of the running device to which the words of `get` lead. Throws std::runtime_error where it
// is unset.
Json inForce(const std::vector<std::string>& words);

// The entries of such a map as a list of objects, each with its key as `name` first.
Json entriesInForce(const std::vector<std::string>& words, const char* name);

}  // namespace orvel::sim
