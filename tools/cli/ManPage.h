// Manual pages, from the descriptions that parse the arguments.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace orvel::cli {

// The page of a program, section 1, in roff. What a help text says in indented lines stays as it is; a line in front of
// them that ends with a colon is their heading, and behind the program's own help a section: "Exit status:".
// `see_also` is a program with a page.
std::string manPage(const CLI::App& app, const std::string& see_also);

}  // namespace orvel::cli
