#pragma once

// Connects vynctl to a cluster: loads the configuration of its home, opens a ZooKeeper session to read the
// state, and starts the SDK for operations on variables. Only the main thread calls these functions.

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>

namespace vyn::tools {

/// A failure. main() prints its text and ends with exit code 1.
struct CommandError : std::runtime_error {
  explicit CommandError(const std::string& text, std::uint32_t theStatus = 0)
      : std::runtime_error(text), status(theStatus) {}
  std::uint32_t status;  ///< of the library; 0 when no call of it has failed
};

struct Settings {
  std::string home;
  std::string token;
  bool json = false;
  bool verbose = false;  ///< print log lines from vyn.log.level on to standard error
};

/// Loads the home's configuration into the process, and opens the log on standard error. Without
/// Settings::verbose and the environment variable VYN_LOG_STDERR the log writes nothing. Throws CommandError.
void LoadConfiguration(const Settings& settings);
/// Opens the session of the process. Throws CommandError.
void ConnectZooKeeper();
/// Starts the SDK as a driver or an executor. Throws CommandError.
void StartSdk(const Settings& settings, bool driver);
/// Prints a JSON object on standard output. Replaces bytes that are not UTF-8.
void PrintJson(const nlohmann::json& answer);
/// Throws CommandError with the thread's last error if `status` is a failure.
void Require(std::uint32_t status, const std::string& what);

/// A progress bar on standard error during a long copy. Does nothing if standard error is not a terminal.
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
