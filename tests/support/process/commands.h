#pragma once

#include "support/test.h"

// The main loop of a test program: each line of input is a command, answered by one line of output. A command
// is a name and a function; the words behind the name become the function's arguments.

namespace vyn::test {

/// A missing word is an empty text or a zero; "-" stands for the empty text.
void ReadWord(std::istream& words, auto& value) {
  words >> value;
  if constexpr (std::is_same_v<decltype(value), std::string&>) {
    value = value == "-" ? "" : value;
  }
}

/// Returns: the parts with a blank between each two.
template <typename First, typename... Rest>
std::string Answer(const First& first, const Rest&... rest) {
  std::ostringstream text;
  text << first;
  ((text << ' ' << rest), ...);
  return text.str();
}

/// Made from a function with any number of texts and numbers as arguments, and a text or a number as result.
class Command {
 public:
  template <typename Function>
  Command(Function function) : Command(std::function(function)) {}  // NOLINT: the table's rows convert
  template <typename Result, typename... Arguments>
  explicit Command(std::function<Result(Arguments...)> function)
      : mRun([function](std::istream& words) {
          std::tuple<Arguments...> all;
          return std::apply(
              [&](auto&... each) {
                (ReadWord(words, each), ...);
                return Answer(function(each...));
              },
              all);
        }) {}

  std::string Run(std::istream& words) const { return mRun(words); }

 private:
  std::function<std::string(std::istream&)> mRun;
};

/// Answers until the input ends. \param mark stands in front of every answer.
inline void ServeCommands(const std::map<std::string, Command>& commands, const std::string& mark = "") {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    const auto command = commands.find(name);
    std::cout << mark << (command == commands.end() ? "unknown" : command->second.Run(words)) << std::endl;
  }
}

}  // namespace vyn::test
