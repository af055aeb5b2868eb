#pragma once

// Functions for the demo's driver and executor.
//
// Both print JSON objects, one a line, for demo.py. A line on standard input lets them go on to their next
// step. Times are seconds of the machine's monotonic clock, so that times of different processes can be
// compared.
//
// One thread of a process uses an object.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace vyn::demo {

struct Arguments {
  std::string home;
  std::string version = "24.0.0";
  std::string binaryType;
  std::string application = "demo";
  std::string token = "demo-token";
  unsigned int variable = 1;
  std::string file;  ///< driver: the file to broadcast
  std::uint64_t blockSize = 4 << 20;
  std::string socket;                ///< executor: "ip:port" to receive the file from, instead of the fabric
  std::string listen = "127.0.0.1";  ///< driver: the address to listen at for receivers
  unsigned int receivers = 0;        ///< driver: if not 0, send the file to so many receivers over sockets
};

/// Reads the command line. Returns: false when the process has to end with `exitCode`.
bool ReadArguments(const char* name, int argc, char** argv, Arguments& arguments, int& exitCode);

/// Returns: seconds of the monotonic clock.
double Now();
/// Returns: the private memory of this process in bytes, that is, its anonymous pages without those of the
/// pool.
std::uint64_t PrivateMemory();
/// Waits until demo.py writes a line to standard input or closes it.
void AwaitLine();

/// Computes the SHA-256 of bytes that arrive in pieces.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  void Add(const void* data, std::size_t size);
  /// Returns: the hash in hexadecimal. Call it once.
  std::string Finish();

 private:
  struct Context;
  std::unique_ptr<Context> mContext;
};

/// A file mapped for reading.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  const char* Data() const { return mData; }
  std::uint64_t Size() const { return mSize; }

 private:
  const char* mData = nullptr;
  std::uint64_t mSize = 0;
};

/// Ends the process with a message if `status` is a failure.
void Require(std::uint32_t status, const std::string& what);

}  // namespace vyn::demo
