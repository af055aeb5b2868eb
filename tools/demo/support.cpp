#include "tools/demo/support.h"

#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <system_error>

namespace vyn::demo {

bool ReadArguments(const char* name, int argc, char** argv, Arguments& arguments, int& exitCode) {
  CLI::App app{"A process of the demo of Vyn broadcast; started by `./vyn demo`.", name};
#if defined(__aarch64__)
  arguments.binaryType = "linux-aarch64";
#else
  arguments.binaryType = "linux-x86_64";
#endif
  app.add_option("--home", arguments.home, "the installation");
  app.add_option("--application", arguments.application)->capture_default_str();
  app.add_option("--token", arguments.token)->capture_default_str();
  app.add_option("--variable", arguments.variable)->capture_default_str();
  app.add_option("--file", arguments.file, "what the driver broadcasts");
  app.add_option("--block-size", arguments.blockSize, "bytes of a block")->capture_default_str();
  app.add_option("--socket", arguments.socket, "read from ip:port instead of the fabric");
  app.add_option("--listen", arguments.listen, "address for the receivers")->capture_default_str();
  app.add_option("--receivers", arguments.receivers, "send the file to so many over a socket instead");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitCode = app.exit(error) == 0 ? 0 : 2;
    return false;
  }
  return true;
}

double Now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::uint64_t PrivateMemory() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  std::uint64_t bytes = 0;
  for (std::string line; std::getline(rollup, line);) {
    if (line.rfind("Anonymous:", 0) == 0) {
      bytes += std::strtoull(line.c_str() + line.find(':') + 1, nullptr, 10) * 1024;
    }
  }
  return bytes;
}

void AwaitLine() {
  std::string line;
  std::getline(std::cin, line);
}

struct Sha256::Context {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  ~Context() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : mContext(std::make_unique<Context>()) {
  EVP_DigestInit_ex(mContext->context, EVP_sha256(), nullptr);
}

Sha256::~Sha256() = default;

void Sha256::Add(const void* data, std::size_t size) { EVP_DigestUpdate(mContext->context, data, size); }

std::string Sha256::Finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(mContext->context, digest.data(), &length);
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    std::array<char, 3> pair{};
    std::snprintf(pair.data(), pair.size(), "%02x", digest[i]);
    text += pair.data();
  }
  return text;
}

MappedFile::MappedFile(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status {};
  if (descriptor < 0 || fstat(descriptor, &status) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  mSize = static_cast<std::uint64_t>(status.st_size);
  if (mSize != 0) {
    void* address = mmap(nullptr, mSize, PROT_READ, MAP_SHARED, descriptor, 0);
    if (address == MAP_FAILED) {
      const int error = errno;
      close(descriptor);
      throw std::system_error(error, std::generic_category(), path);
    }
    mData = static_cast<const char*>(address);
  }
  close(descriptor);
}

MappedFile::~MappedFile() {
  if (mData != nullptr) {
    munmap(const_cast<char*>(mData), mSize);
  }
}

void Require(std::uint32_t status, const std::string& what) {
  if (Failed(status)) {
    const char* message = BroadcastGetLastErrorMessage();
    std::fprintf(stderr, "%s failed with %u: %s\n", what.c_str(), status, message == nullptr ? "" : message);
    std::exit(1);
  }
}

}  // namespace vyn::demo
