#pragma once

// Helpers for both programs. Any thread may call Check; only the main thread uses Sdk and RunProgram.

#include <vyn/broadcast.h>
#include <vyn/status.h>
#include <vyn/variable.h>

#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#if defined(__aarch64__)
inline constexpr const char* kBinaryType = "linux-aarch64";
#else
inline constexpr const char* kBinaryType = "linux-x86_64";
#endif
inline constexpr const char* kRelease = "24.0.0";

/// Throws with the library's last error message if `status` is a failure. Call it on the thread that got the
/// status, because each thread has its own last error. The library only logs some failures; then the message
/// can be that of an earlier one.
inline void Check(unsigned int status, const std::string& call) {
  if (vyn::Failed(status)) {
    const char* words = BroadcastGetLastErrorMessage();
    throw std::runtime_error(call + " failed with " + std::to_string(status) + ": " +
                             (words == nullptr ? "see the log" : words));
  }
}

/// Starts the SDK, and stops it in the destructor.
class Sdk {
 public:
  /// \param flag 0 for a driver, 1 for an executor.
  Sdk(const char* home, unsigned int flag) {
    Check(BroadcastInitialize(home, kRelease, kBinaryType, flag), "BroadcastInitialize");
  }
  ~Sdk() { BroadcastUninitialize(); }
  Sdk(const Sdk&) = delete;
  Sdk& operator=(const Sdk&) = delete;
};

struct CloseVariable {
  void operator()(VynVariable* variable) const { VynVariableClose(variable); }
};
/// A handle of a variable, closed in the destructor. A variable that is not published by then is abandoned.
using Variable = std::unique_ptr<VynVariable, CloseVariable>;

/// Checks the number of arguments, calls `run` and prints its exception. Returns: the exit code of the
/// program.
inline int RunProgram(int argc, char** argv, const char* usage, void (*run)(char** arguments)) {
  if (argc != 6) {
    std::cerr << "usage: " << usage << "\n";
    return 2;
  }
  try {
    run(argv);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
}
