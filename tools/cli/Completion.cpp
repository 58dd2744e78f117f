#include "tools/cli/Completion.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <utility>

namespace orvel::cli {
namespace {

// As much as a person does not notice.
constexpr long kLimitMs = 150;

using Options = std::vector<const CLI::Option*>;

// The options that may stand behind a subcommand: its own and, where it lets them through, those above.
Options optionsOf(const CLI::App* app) {
  Options options;
  for (bool more = true; more && app != nullptr; app = app->get_parent()) {
    const Options own = app->get_options([](const CLI::Option* option) { return option->nonpositional(); });
    options.insert(options.end(), own.begin(), own.end());
    more = app->get_fallthrough();
  }
  return options;
}

// Where the typed word stands in what the description describes.
class Place {
 public:
  Place(const CLI::App& app, const std::vector<std::string>& words) : m_app(&app) {
    for (auto word = words.begin() + (words.empty() ? 0 : 1); word != words.end(); ++word) pass(*word);
  }

  Candidates candidates(const std::string& typed, const Values& values) const {
    if (m_option != nullptr) return valuesOf(*m_option, "", typed, m_given, values);
    if (m_app->get_prefix_command() && !m_given.empty()) return remaining(typed, values);
    if (!m_dashed && typed.rfind('-', 0) == 0) {
      const std::size_t equals = typed.find('=');
      if (equals == std::string::npos) return {optionNames(), "", "", {}};
      const CLI::Option* option = optionCalled(typed.substr(0, equals));
      if (option == nullptr || isFlag(*option)) return {};
      return valuesOf(*option, typed.substr(0, equals + 1), typed, {}, values);
    }
    Candidates found;
    const auto fits = [&](const CLI::App* each) { return !each->get_group().empty() && m_count == 0; };
    if (const CLI::Option* positional = positionalAt(m_count))
      found = valuesOf(*positional, "", typed, m_given, values);
    if (m_app->get_prefix_command()) found = remaining(typed, values);
    for (const CLI::App* each : m_app->get_subcommands(fits)) found.words.push_back(each->get_name());
    return found;
  }

 private:
  static bool isFlag(const CLI::Option& option) { return option.get_items_expected_max() == 0; }

  void pass(const std::string& word) {
    if (m_option != nullptr) {
      m_given.push_back(word);
      if (static_cast<int>(m_given.size()) >= m_option->get_items_expected_min()) endOption();
      return;
    }
    const bool prefixed = m_app->get_prefix_command() && !m_given.empty();
    if (!m_dashed && !prefixed && word.size() > 1 && word.front() == '-') {
      const CLI::Option* option = word == "--" ? nullptr : optionCalled(word);
      m_dashed = word == "--";
      if (option != nullptr && !isFlag(*option)) {
        m_option = option;
        std::swap(m_given, m_positionals);
      }
      return;
    }
    const auto subcommands = m_app->get_subcommands([&](const CLI::App* each) { return each->check_name(word); });
    if (m_count == 0 && !subcommands.empty()) {
      m_app = subcommands.front();
      return;
    }
    const CLI::Option* option = positionalAt(m_count++);
    m_given.push_back(word);
    if (option != nullptr && option != positionalAt(m_count)) m_given.clear();  // the next one has none yet
  }

  // Back to the positional arguments, of which some may have been given before the option.
  void endOption() {
    m_option = nullptr;
    m_given = std::exchange(m_positionals, {});
  }

  const CLI::Option* optionCalled(const std::string& name) const {
    for (const CLI::Option* option : optionsOf(m_app)) {
      if (option->check_name(name)) return option;
    }
    return nullptr;
  }

  // The positional argument that the word after `count` of them belongs to; null when there are enough.
  const CLI::Option* positionalAt(std::size_t count) const {
    for (const CLI::Option* option :
         m_app->get_options([](const CLI::Option* each) { return each->get_positional(); })) {
      const auto most = static_cast<std::size_t>(option->get_items_expected_max());
      if (count < most) return option;
      count -= most;
    }
    return nullptr;
  }

  std::vector<std::string> optionNames() const {
    std::vector<std::string> names;
    for (const CLI::Option* option : optionsOf(m_app)) {
      if (option->get_group().empty()) continue;
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      for (const std::string& name : option->get_snames()) names.push_back("-" + name);
    }
    return names;
  }

  // Of a subcommand that takes all words as they are.
  Candidates remaining(const std::string& typed, const Values& values) const {
    Candidates found;
    found.before = m_given;
    add(found, typed, "", values, m_app->get_name());
    return found;
  }

  Candidates valuesOf(const CLI::Option& option, const std::string& head, const std::string& typed,
                      const std::vector<std::string>& before, const Values& values) const {
    const std::string name = option.get_name(option.get_positional());
    Candidates found;
    found.before = before;
    for (const std::string& word : choicesOf(option)) found.words.push_back(head + word);
    if (option.get_type_name().find("FILE") != std::string::npos) found.kind = kFileNames;
    if (!add(found, typed, head, values, m_app->get_name() + " " + name)) add(found, typed, head, values, name);
    return found;
  }

  // Adds the values that are known under a name; false when there are none.
  static bool add(Candidates& found, const std::string& typed, const std::string& head, const Values& values,
                  const std::string& name) {
    const auto known = values.find(name);
    if (known == values.end()) return false;
    for (const std::string& value : known->second) {
      const std::size_t at = value.find('@');
      const std::string front = head + value.substr(0, at);
      if (at == std::string::npos || (at != 0 && typed.rfind(front, 0) != 0)) {
        found.words.push_back(front);
      } else {
        found.kind = value.substr(at + 1);
        found.head = front;
      }
    }
    return true;
  }

  const CLI::App* m_app;                  // the innermost subcommand
  const CLI::Option* m_option = nullptr;  // the one that still expects a value
  std::vector<std::string> m_given;       // of that option, else of the positional argument that goes on
  std::vector<std::string> m_positionals;
  std::size_t m_count = 0;  // of positional arguments
  bool m_dashed = false;    // behind "--" no word is an option
};

// Becomes orvel-sim, which knows the device. Comes back when there is none.
void askSimulator(const std::string& line, const std::string& breaks, const Candidates& found) {
  std::vector<std::string> words = {"orvel-sim", "--complete-values", line, breaks, found.head, found.kind};
  words.insert(words.end(), found.before.begin(), found.before.end());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  execv((self.parent_path() / words.front()).c_str(), pointers.data());
  execvp(pointers.front(), pointers.data());
}

}  // namespace

Candidates candidates(const CLI::App& app, const TypedWord& word, const Values& values) {
  return Place(app, word.before()).candidates(word.text(), values);
}

std::vector<std::string> choicesOf(const CLI::Option& option) {
  // The check itself keeps its values to itself; the name of the type shows them: "TEXT:{a,b}".
  const std::string type = option.get_type_name();
  const std::size_t begin = type.find('{');
  const std::size_t end = type.find('}', begin);
  if (begin == std::string::npos || end == std::string::npos) return {};
  std::istringstream words(type.substr(begin + 1, end - begin - 1));
  std::vector<std::string> choices;
  for (std::string word; std::getline(words, word, ',');) choices.push_back(word);
  return choices;
}

void writeCompletions(const TypedWord& word, const std::vector<std::string>& words) {
  std::string lines;
  for (const std::string& candidate : words) {
    const auto completed = word.completedBy(candidate);
    // A line break within a word could not be told from the end of one.
    if (completed && completed->find('\n') == std::string::npos) lines += *completed + '\n';
  }
  for (std::size_t done = 0; done < lines.size();) {
    const ssize_t written = write(STDOUT_FILENO, lines.data() + done, lines.size() - done);
    if (written <= 0) return;  // the shell reads no further
    done += static_cast<std::size_t>(written);
  }
}

void limitCompletion() {
  itimerval timer{};
  getitimer(ITIMER_REAL, &timer);
  if (timer.it_value.tv_sec != 0 || timer.it_value.tv_usec != 0) return;  // armed before this program was started
  const char* longer = std::getenv("ORVEL_COMPLETION_MS");
  const long limit = longer == nullptr ? kLimitMs : std::max(1L, std::strtol(longer, nullptr, 10));
  timer.it_value = {limit / 1000, limit % 1000 * 1000};
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  std::signal(SIGALRM, SIG_DFL);
  sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  setitimer(ITIMER_REAL, &timer, nullptr);
}

int complete(const CLI::App& app, const std::string& line, const std::string& breaks, const Values& values) {
  limitCompletion();
  const TypedWord word(line, breaks);
  const Candidates found = candidates(app, word, values);
  // Before what may have to wait, so that it is there in any case.
  writeCompletions(word, found.words);
  if (found.kind == kFileNames) return 1;
  if (!found.kind.empty()) askSimulator(line, breaks, found);
  return 0;
}

}  // namespace orvel::cli
