// The traffic as it is printed.
#pragma once

#include <cstddef>
#include <string>

#include "device/Wire.h"

namespace orvel::sim {

// Writes entries and gaps (recordingGap) for standard output.
class TrafficLines {
 public:
  enum class Form {
    kLine,  // one line, cut to the width of the terminal
    kFull,  // all of it, its JSON unfolded
    kJson,  // one object a line
  };

  explicit TrafficLines(Form form);

  // Without the end of the last line. No character of a service or client reaches the terminal that it would act on.
  std::string write(const Json& line) const;

 private:
  std::string writeLine(const Json& entry) const;

  Form m_form;
  std::size_t m_columns;  // 0: nothing is cut
};

}  // namespace orvel::sim
