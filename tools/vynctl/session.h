#pragma once

// How vynctl reaches a cluster: the configuration of its home, a ZooKeeper session for what it only reads,
// and the SDK for variables.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

namespace vyn::tools {

/// A failure that ends the command with exit code 1 and this text.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Settings {
  std::string home;
  std::string token;
  bool json = false;
  bool verbose = false;  ///< log lines on standard error, as vyn.log.level says; otherwise only errors
};

/// Loads the home's configuration into the process. Throws CommandError.
void LoadConfiguration(const Settings& settings);
/// Opens the session of the process. Throws CommandError.
void ConnectZooKeeper();
/// Starts the SDK as a driver or an executor. Throws CommandError.
void StartSdk(const Settings& settings, bool driver);
/// One JSON object on standard output; bytes that are no UTF-8 are replaced.
void PrintJson(const nlohmann::json& answer);
/// Throws CommandError with the thread's last error when `status` tells of a failure.
void Require(std::uint32_t status, const std::string& what);

/// A bar on standard error while a long copy runs; nothing when that is no terminal.
class Progress {
 public:
  Progress(std::string title, std::uint64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void Add(std::uint64_t bytes);

 private:
  void Draw();

  const std::string mTitle;
  const std::uint64_t mTotal;
  const bool mTerminal;
  std::uint64_t mDone = 0;
  int mShown = -1;
};

}  // namespace vyn::tools
