#include "tools/vynctl/cluster_access.h"

#include "cluster/cluster_zkadapter.h"
#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/config/env_helper.h"
#include "common/log/error_info.h"
#include "common/log/log.h"
#include "common/util/file_util.h"
#include "platform/ulog/ulog.h"
#include "platform/zk_helper/zk_helper.h"
#include "vyn/broadcast.h"
#include "vyn/status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace vyn::tools {

namespace {

common::Ref<common::Configuration> Conf() { return common::Configuration::GetInstance(); }

/// While it lives, standard output leads nowhere, or to standard error. The library prints there until its
/// log is open, and the output of vynctl belongs to the answer.
class LibraryOutput {
 public:
  explicit LibraryOutput(bool shown) : mSaved(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    std::fflush(stdout);
    const int target = shown ? STDERR_FILENO : open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(target, STDOUT_FILENO);
    if (!shown) {
      close(target);
    }
  }
  ~LibraryOutput() {
    std::fflush(stdout);
    dup2(mSaved, STDOUT_FILENO);
    close(mSaved);
  }
  LibraryOutput(const LibraryOutput&) = delete;
  LibraryOutput& operator=(const LibraryOutput&) = delete;

 private:
  const int mSaved;
};

}  // namespace

void Require(std::uint32_t status, const std::string& what) {
  if (Failed(status)) {
    throw CommandError(what + " failed with " + std::to_string(status) + ": " + common::LastErrorText(),
                       status);
  }
}

void PrintJson(const nlohmann::json& answer) {
  std::printf("%s\n", answer.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

void LoadConfiguration(const Settings& settings) {
  if (settings.home.empty()) {
    throw CommandError("no home is given: --home DIR, or the environment variable VYN_HOME");
  }
  if (!settings.verbose) {
    setenv("VYN_LOG_STDERR", "off", 0);
  }
  const LibraryOutput hidden(settings.verbose);
  std::string home;
  if (Failed(common::FileUtil::RealPathNoLog(settings.home, home))) {
    throw CommandError("the home '" + settings.home + "' cannot be resolved");
  }
  if (Failed(common::BaseApiUtil::SetVynEnv(home.c_str(), VYN_RELEASE, VYN_BINARY_TYPE)) ||
      common::EnvHelper::GetInstance() == nullptr ||
      common::Configuration::GetInstance(home + "/conf/vyn.conf") == nullptr) {
    throw CommandError(home + "/conf/vyn.conf cannot be loaded; `vynctl conf check` tells why");
  }
  ULOG_Init(ULOG_TYPE_STDERR,
            static_cast<int>(common::Log::StandardErrorLevel(Conf()->GetString("vyn.log.level", ""))),
            nullptr, 0, 0);
}

void ConnectZooKeeper() {
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SDK);
  if (adapter == nullptr ||
      Failed(adapter->ClusterZKAdapterInit(Conf()->GetInt("vyn.zookeeper.session.timeout", 30000)))) {
    throw CommandError("ZooKeeper at " + Conf()->GetString("vyn.zookeeper.server.url", "") +
                       " cannot be used: " + VynZookeeperGetLastMessage());
  }
}

void StartSdk(const Settings& settings, bool driver) {
  const LibraryOutput hidden(settings.verbose);
  const auto environment = common::EnvHelper::GetInstance();
  const std::uint32_t status = BroadcastInitialize(settings.home.c_str(), environment->GetVersion().c_str(),
                                                   environment->GetBinaryType().c_str(), driver ? 0 : 1);
  // The library has no text of its own for these two.
  if (Failed(status) && std::string(common::LastErrorText()).empty()) {
    throw CommandError(VynGetZkHandle() != nullptr
                           ? "there is no metadata leader: start vynd on a node that may lead"
                           : "ZooKeeper at " + Conf()->GetString("vyn.zookeeper.server.url", "") +
                                 " cannot be used: " + VynZookeeperGetLastMessage(),
                       status);
  }
  Require(status, driver ? "starting as a driver" : "starting on this node");
}

Progress::Progress(std::string title, std::uint64_t total)
    : mTitle(std::move(title)), mTotal(total), mTerminal(isatty(STDERR_FILENO) != 0) {
  Draw();
}

Progress::~Progress() {
  if (mTerminal) {
    std::fputs("\n", stderr);
  }
}

void Progress::Add(std::uint64_t bytes) {
  mDone += bytes;
  Draw();
}

void Progress::Draw() {
  constexpr int kWidth = 40;
  const int percent = mTotal == 0 ? 100 : static_cast<int>(mDone * 100 / mTotal);
  if (!mTerminal || percent == mShown) {
    return;
  }
  mShown = percent;
  const int filled = percent * kWidth / 100;
  std::fprintf(stderr, "\r%s [%s%s] %3d%%", mTitle.c_str(), std::string(filled, '#').c_str(),
               std::string(kWidth - filled, ' ').c_str(), percent);
  std::fflush(stderr);
}

}  // namespace vyn::tools
