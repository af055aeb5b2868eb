#pragma once

// What the scripted libbmclient.so (programs/libscripted_bmclient.cpp) answers, and what it was asked. The
// script is the test's; the library only holds a pointer to it. Any thread may use it.

#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace vyn::test {

/// The arguments of a call as one text, "a|b|c". Both sides of a comparison are made here.
template <typename... Arguments>
std::string Joined(const Arguments&... arguments) {
  std::ostringstream text;
  const char* separator = "";
  const auto add = [&](const auto& argument) {
    text << separator << argument;
    separator = "|";
  };
  (add(arguments), ...);
  return text.str();
}

class BmScript {
 public:
  struct Answer {
    int result = 0;
    int error = 0;  ///< errno
    /// Runs in the library's call before it returns.
    std::function<void()> during;
  };

  /// Queues answers for a function. A function without one left answers 0.
  void Expect(const std::string& function, const std::vector<Answer>& answers) {
    std::lock_guard lock(mMutex);
    auto& queue = mAnswers[function];
    queue.insert(queue.end(), answers.begin(), answers.end());
  }
  void ExpectResults(const std::string& function, const std::vector<int>& results) {
    for (int result : results) {
      Expect(function, {{result, 0, {}}});
    }
  }

  /// The arguments of every call of a function so far.
  std::vector<std::string> Calls(const std::string& function) {
    std::lock_guard lock(mMutex);
    return mCalls[function];
  }
  std::size_t CallCount() {
    std::lock_guard lock(mMutex);
    return mCallCount;
  }
  void Clear() {
    std::lock_guard lock(mMutex);
    mAnswers.clear();
    mCalls.clear();
    mCallCount = 0;
  }

  /// For the library: notes a call. Returns: its result.
  int Take(const std::string& function, const std::string& arguments) {
    Answer answer;
    {
      std::lock_guard lock(mMutex);
      mCalls[function].push_back(arguments);
      ++mCallCount;
      auto& queue = mAnswers[function];
      if (!queue.empty()) {
        answer = queue.front();
        queue.pop_front();
      }
    }
    if (answer.during) {
      answer.during();
    }
    errno = answer.error;
    return answer.result;
  }

 private:
  std::mutex mMutex;  // guards all below
  std::map<std::string, std::deque<Answer>> mAnswers;
  std::map<std::string, std::vector<std::string>> mCalls;
  std::size_t mCallCount = 0;
};

}  // namespace vyn::test
