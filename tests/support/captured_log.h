#pragma once

// Puts a logger in place whose lines a test can read.

#include "platform/ulog/ulog.h"
#include "support/test.h"

namespace vyn::test {

class CapturedLog {
 public:
  /// \param level the threshold, 1 debug to 4 error.
  explicit CapturedLog(int level = 1);
  ~CapturedLog() { utilities::log::ULog::gLogger.store(mOld); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  /// The messages of one level, 1 debug, 2 info, 3 warn, 4 error, in order, without "<source file>:<line>] ".
  std::vector<std::string> Texts(int level) const;
  void Clear();

 private:
  class Sink;
  std::shared_ptr<Sink> mSink;
  utilities::log::ULog* mOld;
};

}  // namespace vyn::test
