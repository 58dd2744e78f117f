// An output file that replaces an existing one only if told to.
#pragma once

#include <sys/types.h>

#include <string>

namespace orvel::sim {

class OutputFile {
 public:
  // Throws std::runtime_error when it cannot be made, or exists and is not to be replaced.
  OutputFile(std::string path, bool replace);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Appends whole lines. Throws std::runtime_error, for a full disk for example; the file then ends with the last line
  // for which there was room.
  void write(const std::string& lines);

 private:
  [[noreturn]] void fail(int error) const;

  std::string m_path;
  int m_descriptor;
  off_t m_size = 0;
};

}  // namespace orvel::sim
