#pragma once

// Puts a logger in place whose lines a test can read.

#include "platform/ulog/ulog.h"
#include "support/test.h"

namespace vyn::test {

class CapturedLog {
 public:
  /// \param level the threshold, 1 debug to 4 error.
  explicit CapturedLog(int level = 1);
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  struct Line {
    int level;         ///< 1 debug, 2 info, 3 warn, 4 error
    std::string text;  ///< the message behind "<source file>:<line>] "
    std::string whole;
  };
  std::vector<Line> Lines() const;
  /// The messages of one level, in order.
  std::vector<std::string> Texts(int level) const;
  /// Whether a line of this level has exactly this message.
  bool Has(int level, const std::string& text) const;
  void Clear();

 private:
  class Sink;
  std::shared_ptr<Sink> mSink;
  utilities::log::ULog* mOld;
};

}  // namespace vyn::test
