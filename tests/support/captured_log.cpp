#include "support/captured_log.h"

#include "support/test.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

namespace vyn::test {

using utilities::log::ULog;

class CapturedLog::Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  using Lines = std::map<int, std::vector<std::string>>;
  Lines Take(bool keep) {
    std::lock_guard lock(mutex_);
    return keep ? mLines : std::exchange(mLines, {});
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const std::string whole(message.payload.data(), message.payload.size());
    const auto mark = whole.find("] ");
    mLines[message.level].push_back(mark == std::string::npos ? whole : whole.substr(mark + 2));
  }
  void flush_() override {}

 private:
  Lines mLines;  ///< guarded by mutex_
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

std::vector<std::string> CapturedLog::Texts(int level) const { return mSink->Take(true)[level]; }

void CapturedLog::Clear() { mSink->Take(false); }

}  // namespace vyn::test
