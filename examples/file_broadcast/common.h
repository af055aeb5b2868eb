#pragma once

// What both programs need besides the library.

#include <vyn/broadcast.h>
#include <vyn/status.h>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#if defined(__aarch64__)
inline constexpr const char* kBinaryType = "linux-aarch64";
#else
inline constexpr const char* kBinaryType = "linux-x86_64";
#endif
inline constexpr const char* kRelease = "24.0.0";

/// Throws with the library's own words when `status` tells of a failure. To be called on the thread that got
/// the status: the last error belongs to it. Some failures are only logged; the words can be older ones then.
inline void Check(unsigned int status, const std::string& call) {
  if (vyn::Failed(status)) {
    const char* words = BroadcastGetLastErrorMessage();
    throw std::runtime_error(call + " failed with " + std::to_string(status) + ": " +
                             (words == nullptr ? "see the log" : words));
  }
}

/// The SDK, in use as long as this object lives.
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

/// The frame of a program with six arguments. Returns: its exit code.
inline int RunProgram(int argc, char** argv, const char* usage, void (*run)(char** arguments)) {
  if (argc != 7) {
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
