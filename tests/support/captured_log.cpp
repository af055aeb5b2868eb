#include "support/captured_log.h"

#include "support/test.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

namespace vyn::test {

using utilities::log::ULog;

class CapturedLog::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /// Takes all lines out when `clear` is set.
  std::vector<Line> Lines(bool clear) {
    std::lock_guard lock(mutex_);
    return clear ? std::exchange(mLines, {}) : mLines;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const std::string whole(message.payload.data(), message.payload.size());
    const auto mark = whole.find("] ");
    mLines.push_back(
        {static_cast<int>(message.level), mark == std::string::npos ? whole : whole.substr(mark + 2), whole});
  }
  void flush_() override {}

 private:
  std::vector<Line> mLines;  ///< guarded by mutex_
};

CapturedLog::CapturedLog(int level) : mSink(std::make_shared<Sink>()), mOld(ULog::gLogger.load()) {
  // Never freed, as every logger of the process: a thread may still hold it.
  auto* logger = new ULog;
  logger->mLogger = std::make_shared<spdlog::logger>("captured", mSink);
  logger->mLogger->set_level(spdlog::level::trace);
  logger->mLevel = level;
  logger->mDebugEnabled = level <= 1;
  static auto& kept = *new std::vector<ULog*>;  // reachable to the very end, so that no leak is reported
  kept.push_back(logger);
  ULog::gLogger.store(logger);
}

CapturedLog::~CapturedLog() { ULog::gLogger.store(mOld); }

std::vector<CapturedLog::Line> CapturedLog::Lines() const { return mSink->Lines(false); }

void CapturedLog::Clear() { mSink->Lines(true); }

std::vector<std::string> CapturedLog::Texts(int level) const {
  std::vector<std::string> texts;
  for (const Line& line : Lines()) {
    if (line.level == level) {
      texts.push_back(line.text);
    }
  }
  return texts;
}

bool CapturedLog::Has(int level, const std::string& text) const {
  const auto texts = Texts(level);
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace vyn::test
