#include "support/captured_log.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>

namespace vyn::test {

using utilities::log::ULog;

struct CapturedLog::State {
  std::mutex mutex;
  std::vector<Line> lines;
};

namespace {

class Sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit Sink(std::function<void(int, std::string)> take) : mTake(std::move(take)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    mTake(static_cast<int>(message.level), std::string(message.payload.data(), message.payload.size()));
  }
  void flush_() override {}

 private:
  std::function<void(int, std::string)> mTake;
};

}  // namespace

CapturedLog::CapturedLog(int level) : mState(std::make_shared<State>()), mOld(ULog::gLogger.load()) {
  auto state = mState;
  auto sink = std::make_shared<Sink>([state](int lineLevel, std::string whole) {
    std::lock_guard lock(state->mutex);
    const auto mark = whole.find("] ");
    state->lines.push_back({lineLevel, mark == std::string::npos ? whole : whole.substr(mark + 2), whole});
  });
  // Never freed, as every logger of the process: a thread may still hold it.
  auto* logger = new ULog;
  logger->mLogger = std::make_shared<spdlog::logger>("captured", sink);
  logger->mLogger->set_level(spdlog::level::trace);
  logger->mLevel = level;
  logger->mDebugEnabled = level <= 1;
  static auto& kept = *new std::vector<ULog*>;  // reachable to the very end, so that no leak is reported
  kept.push_back(logger);
  ULog::gLogger.store(logger);
}

CapturedLog::~CapturedLog() { ULog::gLogger.store(mOld); }

std::vector<CapturedLog::Line> CapturedLog::Lines() const {
  std::lock_guard lock(mState->mutex);
  return mState->lines;
}

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

void CapturedLog::Clear() {
  std::lock_guard lock(mState->mutex);
  mState->lines.clear();
}

}  // namespace vyn::test
