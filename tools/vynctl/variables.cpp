#include "tools/vynctl/commands.h"
#include "tools/vynctl/interruption.h"
#include "vyn/broadcast.h"
#include "vyn/variable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vyn::tools {

namespace {

using nlohmann::json;

/// The bytes that a get writes between two steps of its progress bar.
constexpr std::uint64_t kPiece = std::uint64_t{4} << 20U;

/// A file open for reading.
class Input {
 public:
  explicit Input(const std::string& path) : mValue(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (mValue < 0) {
      throw CommandError(path + ": " + std::strerror(errno));
    }
  }
  ~Input() { close(mValue); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  int Get() const { return mValue; }

 private:
  int mValue;
};

/// Fills a part of the range from the file.
void ReadInto(int descriptor, char* target, std::uint64_t size, std::uint64_t offset,
              const std::string& file) {
  while (size > 0) {
    CheckInterrupted();
    const ssize_t count = pread(descriptor, target, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      throw CommandError(file +
                         (count == 0 ? " has become shorter" : std::string(": ") + std::strerror(errno)));
    }
    target += count;
    offset += static_cast<std::uint64_t>(count);
    size -= static_cast<std::uint64_t>(count);
  }
}

void WriteAll(int descriptor, const char* data, std::uint64_t size) {
  while (size > 0) {
    CheckInterrupted();
    const ssize_t count = write(descriptor, data, size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw CommandError(std::string("writing: ") + std::strerror(errno));
    }
    data += count;
    size -= static_cast<std::uint64_t>(count);
  }
}

/// A handle of vyn/variable.h. What is not published when it ends is abandoned.
class Variable {
 public:
  Variable() = default;
  ~Variable() { VynVariableClose(mHandle); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;
  VynVariable** Place() { return &mHandle; }
  VynVariable* Get() const { return mHandle; }
  char* Data() const { return static_cast<char*>(VynVariableData(mHandle)); }

 private:
  VynVariable* mHandle = nullptr;
};

void StartWith(const Settings& settings, const std::string& application) {
  LoadConfiguration(settings);
  StartSdk(settings, true);
  bool onNode = false;
  Require(RegisterBroadcastApp(application.c_str(), true, settings.token.c_str(), &onNode),
          "registering " + application);
}

/// The destination of a get: standard output, or a file that gets its name only when it is complete.
class Output {
 public:
  explicit Output(const std::string& file) : mFile(file) {
    if (file.empty()) {
      mDescriptor = STDOUT_FILENO;
      return;
    }
    struct stat status {};
    // Write directly into a pipe or a device: a rename would replace it by a regular file.
    if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      mDescriptor = open(file.c_str(), O_WRONLY | O_CLOEXEC);
      if (mDescriptor < 0) {
        throw CommandError(file + ": " + std::strerror(errno));
      }
      return;
    }
    mTemporary = file + ".XXXXXX";
    mDescriptor = mkostemp(mTemporary.data(), O_CLOEXEC);
    if (mDescriptor < 0) {
      throw CommandError(mTemporary + ": " + std::strerror(errno));
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(mDescriptor, status.st_mode != 0 ? status.st_mode & 0777U : 0666U & ~mask);
  }
  ~Output() {
    if (mDescriptor >= 0 && mDescriptor != STDOUT_FILENO) {
      close(mDescriptor);
    }
    if (!mTemporary.empty()) {
      unlink(mTemporary.c_str());
    }
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  int Descriptor() const { return mDescriptor; }
  void Finish() {
    if (mFile.empty()) {
      return;
    }
    const bool closed = close(mDescriptor) == 0;
    mDescriptor = -1;
    if (!closed || (!mTemporary.empty() && rename(mTemporary.c_str(), mFile.c_str()) != 0)) {
      throw CommandError(mFile + ": " + std::strerror(errno));
    }
    mTemporary.clear();
  }

 private:
  const std::string mFile;
  std::string mTemporary;
  int mDescriptor = -1;
};

/// Prints the result of the command: `answer` with Settings::json, otherwise `text`.
void Print(const Settings& settings, const json& answer, const std::string& text) {
  if (settings.json) {
    PrintJson(answer);
  } else {
    std::printf("%s\n", text.c_str());
  }
}

}  // namespace

void PutVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file, std::uint64_t blockSize) {
  const Input input(file);
  struct stat status {};
  if (fstat(input.Get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) {
    throw CommandError(file + " is no file with contents");
  }
  const auto total = static_cast<std::uint64_t>(status.st_size);
  StartWith(settings, application);
  DeferSignals();
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const std::uint64_t piece = (std::min(blockSize, total) + page - 1) / page * page;
  const VynVariableOptions options{sizeof(VynVariableOptions), piece};
  Variable variable;
  Require(VynVariableCreateWith(application.c_str(), id, total, &options, variable.Place()),
          "creating the variable");
  {
    Progress progress("put", total);
    for (std::uint64_t offset = 0; offset < total; offset += piece) {
      CheckInterrupted();
      const std::uint64_t size = std::min(piece, total - offset);
      ReadInto(input.Get(), variable.Data() + offset, size, offset, file);
      Require(VynVariableFlush(variable.Get(), offset, size), "writing a block");
      progress.Add(size);
    }
  }
  Require(VynVariablePublish(variable.Get()), "publishing the variable");
  const std::uint64_t count = (total + piece - 1) / piece;
  Print(settings, {{"application", application}, {"variable", id}, {"blocks", count}, {"bytes", total}},
        "variable " + std::to_string(id) + " of " + application + ": " + std::to_string(total) +
            " bytes in " + std::to_string(count) + " blocks");
}

void GetVariable(const Settings& settings, const std::string& application, std::uint32_t id,
                 const std::string& file) {
  StartWith(settings, application);
  Variable variable;
  Require(VynVariableOpen(application.c_str(), id, variable.Place()), "opening the variable");
  const std::uint64_t total = VynVariableSize(variable.Get());
  DeferSignals();
  Output output(file);
  {
    Progress progress("get", total);
    for (std::uint64_t offset = 0; offset < total; offset += kPiece) {
      const std::uint64_t size = std::min(kPiece, total - offset);
      WriteAll(output.Descriptor(), variable.Data() + offset, size);
      progress.Add(size);
    }
  }
  output.Finish();
  if (!file.empty()) {
    Print(settings, {{"application", application}, {"variable", id}, {"bytes", total}, {"file", file}},
          std::to_string(total) + " bytes in " + file);
  }
}

void RemoveVariable(const Settings& settings, const std::string& application, std::uint32_t id) {
  LoadConfiguration(settings);
  StartSdk(settings, true);
  Require(VynVariableDelete(application.c_str(), id), "removing the variable");
  Print(settings, {{"application", application}, {"removed", id}},
        "variable " + std::to_string(id) + " of " + application + " removed");
}

}  // namespace vyn::tools
