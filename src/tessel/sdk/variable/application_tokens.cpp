#include "tessel/sdk/variable/application_tokens.h"

#include "platform/sync/mutex.h"

#include <map>

namespace vyn::tessel {

namespace {

// Never destroyed: a thread may still be inside a call while the process exits.
sync::Mutex& gTokensMutex = *new sync::Mutex;
std::map<std::string, std::string>& gTokens VYN_GUARDED_BY(gTokensMutex) =
    *new std::map<std::string, std::string>;

}  // namespace

void SetToken(const std::string& application, const std::string& token) {
  sync::MutexLock lock(gTokensMutex);
  gTokens.insert_or_assign(application, token);
}

void AddToken(const std::string& application, const std::string& token) {
  sync::MutexLock lock(gTokensMutex);
  gTokens.emplace(application, token);
}

void RemoveToken(const std::string& application) {
  sync::MutexLock lock(gTokensMutex);
  gTokens.erase(application);
}

std::optional<std::string> FindToken(const std::string& application) {
  sync::MutexLock lock(gTokensMutex);
  const auto found = gTokens.find(application);
  return found == gTokens.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace vyn::tessel
