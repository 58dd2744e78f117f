// An output file that replaces an existing one only if told to.
#pragma once

#include <sys/types.h>

#include <string>

namespace orvel::sim {

class OutputFile {
 public:
  // Throws std::runtime_error when it cannot be made, or exists and is not to be replaced. Errors call it `name`, or,
  // if that is empty, by its path.
  OutputFile(const std::string& path, bool replace, const std::string& name = {});
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Appends whole lines. Throws std::runtime_error, for a full disk for example; the file then ends with the last line
  // for which there was room.
  void write(const std::string& lines);

  // So many bytes of it are written.
  off_t size() const { return m_size; }

 private:
  [[noreturn]] void fail(int error) const;

  std::string m_name;
  int m_descriptor;
  off_t m_size = 0;
};

// A file of one text. Where it cannot be written whole, what there was before stays, or no file. Throws as OutputFile
// does.
void writeFile(const std::string& path, bool replace, const std::string& text);

}  // namespace orvel::sim
