#include "tools/orvel-sim/Steps.h"

#include <fstream>
#include <iostream>

#include "device/Scenario.h"

namespace orvel::sim {
namespace {

// Reads the words of one line.
class LineReader {
 public:
  explicit LineReader(const std::string& line) : m_line(line) {}

  std::vector<std::string> read() {
    for (; m_at < m_line.size(); ++m_at) {
      const char c = m_line[m_at];
      if (c == '#' && !m_open) break;
      if (c == ' ' || c == '\t' || c == '\r') {
        end();
      } else if (c == '\'' || c == '"') {
        readQuoted(c);
      } else {
        if (c == '\\') expectMore("a backslash at the end");
        add(c == '\\' ? m_line[++m_at] : c);
      }
    }
    end();
    return m_words;
  }

 private:
  void readQuoted(char quote) {
    m_open = true;
    for (;;) {
      expectMore(std::string("a quote ") + quote + " without an end");
      const char c = m_line[++m_at];
      if (c == quote) return;
      const bool isEscape = c == '\\' && quote == '"' && m_at + 1 < m_line.size() &&
                            (m_line[m_at + 1] == '"' || m_line[m_at + 1] == '\\');
      add(isEscape ? m_line[++m_at] : c);
    }
  }

  void expectMore(const std::string& otherwise) const {
    if (m_at + 1 >= m_line.size()) throw ScenarioError(otherwise);
  }

  void add(char c) {
    m_open = true;
    m_word += c;
  }

  void end() {
    if (m_open) m_words.push_back(m_word);
    m_open = false;
    m_word.clear();
  }

  const std::string& m_line;
  std::size_t m_at = 0;
  bool m_open = false;  // a word has begun, which may be empty
  std::string m_word;
  std::vector<std::string> m_words;
};

}  // namespace

std::vector<std::string> wordsOf(const std::string& line) {
  return LineReader(line).read();
}

int runSteps(const std::string& file,
             const std::function<int(const std::vector<std::string>& words, const std::string& place)>& run) {
  std::ifstream opened;
  if (file != "-") opened = openToRead(file);
  std::istream& lines = file == "-" ? std::cin : opened;
  std::string line;
  for (std::size_t number = 1; readUpTo(lines, '\n', line); ++number) {
    const std::string place = (file == "-" ? "standard input" : file) + ":" + std::to_string(number) + ": ";
    std::vector<std::string> words;
    try {
      words = wordsOf(line);
    } catch (const ScenarioError& error) {
      throw ScenarioError(place + error.what());
    }
    if (words.empty()) continue;
    if (const int status = run(words, place); status != 0) return status;
  }
  return 0;
}

}  // namespace orvel::sim
