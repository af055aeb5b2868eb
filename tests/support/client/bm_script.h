#pragma once

// What the scripted libbmclient.so (programs/libscripted_bmclient.cpp) answers, and what it was asked. The
// script is the test's; the library only holds a pointer to it. Any thread may use it.

#include "support/test.h"

namespace vyn::test {

/// The arguments of a call as one text, "a|b|c". Both sides of a comparison are made here.
template <typename First, typename... Rest>
std::string Joined(const First& first, const Rest&... rest) {
  std::ostringstream text;
  text << first;
  ((text << '|' << rest), ...);
  return text.str();
}

class BmScript {
 public:
  struct Answer {
    /// \param nested runs in the library's call before it returns.
    Answer(
        int value, std::function<void()> nested = [] {})
        : result(value), during(std::move(nested)) {}
    int result;
    std::function<void()> during;
  };

  /// Queues answers for a function. A function without one left answers 0.
  void Expect(const std::string& function, const std::vector<Answer>& answers) {
    std::lock_guard lock(mMutex);
    mAnswers[function].insert(mAnswers[function].end(), answers.begin(), answers.end());
  }
  /// The arguments of every call of a function so far.
  std::vector<std::string> Calls(const std::string& function) {
    std::lock_guard lock(mMutex);
    return mCalls[function];
  }
  bool Untouched() {
    std::lock_guard lock(mMutex);
    return std::all_of(mCalls.begin(), mCalls.end(), [](const auto& calls) { return calls.second.empty(); });
  }
  void Clear() {
    std::lock_guard lock(mMutex);
    mAnswers.clear();
    mCalls.clear();
  }

  /// For the library: notes a call. Returns: its result.
  int Take(const std::string& function, const std::string& arguments) {
    Answer answer = 0;
    {
      std::lock_guard lock(mMutex);
      mCalls[function].push_back(arguments);
      if (auto& queue = mAnswers[function]; !queue.empty()) {
        answer = queue.front();
        queue.pop_front();
      }
    }
    answer.during();
    return answer.result;
  }

 private:
  std::mutex mMutex;  // guards all below
  std::map<std::string, std::deque<Answer>> mAnswers;
  std::map<std::string, std::vector<std::string>> mCalls;
};

}  // namespace vyn::test
