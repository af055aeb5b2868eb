#pragma once

// What the demo's driver and executor share.
//
// Both talk to the demo in lines: JSON objects on standard output, and a line on standard input lets them
// end. Times are seconds of the machine's monotonic clock, so that those of different processes can be
// compared.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vyn::demo {

struct Arguments {
  std::string home;
  std::string version = "24.0.0";
  std::string binaryType;
  std::string application = "demo";
  std::string token = "demo-token";
  unsigned int variable = 1;
  std::string file;  ///< driver: what is broadcast
  std::uint64_t blockSize = 4 << 20;
  unsigned int blocks = 0;           ///< executor: how many there are
  std::string socket;                ///< executor: "ip:port" to read the file from instead, the old way
  std::string listen = "127.0.0.1";  ///< driver: at which address it serves receivers
  unsigned int receivers = 0;        ///< driver: serve the file to so many over a socket, the old way
};

/// Reads the command line. Returns: false when the process has to end with `exitCode`.
bool ReadArguments(const char* name, int argc, char** argv, Arguments& arguments, int& exitCode);

/// Seconds of the monotonic clock.
double Now();
/// Memory that this process has for itself alone, in bytes: its anonymous pages, not the mapped ones of the
/// pool.
std::uint64_t PrivateMemory();
/// Waits until the demo writes a line or closes the pipe.
void AwaitLine();

/// The SHA-256 of bytes that come in pieces.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  void Add(const void* data, std::size_t size);
  /// In hexadecimal. Once.
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

/// The sizes of the blocks that `size` bytes are cut into.
std::vector<unsigned long> BlockSizes(std::uint64_t size, std::uint64_t blockSize);

/// Ends the process with a message when `status` tells of a failure.
void Require(std::uint32_t status, const std::string& what);

}  // namespace vyn::demo
