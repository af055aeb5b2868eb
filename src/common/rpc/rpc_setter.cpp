#include "common/rpc/rpc_setter.h"

#include "common/log/logging.h"
#include "common/rpc/network.h"
#include "common/util/file_util.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <system_error>

namespace vyn::common {

namespace {

const std::string gTcp = "tcp";

constexpr const char* kProtocol = "vyn.tessel.rpc.transport.protocol";
constexpr const char* kDevices = "vyn.tessel.rpc.transport.devices";
constexpr const char* kDevicesPath = "vyn.tessel.rpc.transport.devices.path";
constexpr const char* kIpFilter = "vyn.tessel.rpc.transport.ipfilter";
constexpr const char* kPortRange = "vyn.tessel.rpc.transport.tcp.port.range";
constexpr const char* kKeepAliveInterval = "vyn.ucx.tcp.keepintvl";

constexpr std::size_t kMaxIpFilter = 1024;

void SetVariable(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

/// Calls `take` with the name of every entry of a directory, in the directory's order. Returns: whether the
/// directory could be opened.
bool ForEachEntry(const std::string& path, const std::function<void(std::string)>& take) {
  std::error_code failure;
  std::filesystem::directory_iterator entry(path, failure);
  if (failure) {
    return false;
  }
  for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
    take(entry->path().filename().string());
  }
  return true;
}

}  // namespace

void RpcSetter::DefaultSetting(const Ref<Configuration>& conf) {
  if (conf == nullptr) {
    VYN_LOG_ERROR("Param mConf is nullptr.");
    return;
  }
  const std::string protocol = conf->GetString(kProtocol, "");
  SetVariable("UCX_TLS", protocol);

  std::string devices;
  ResolveDeviceName(devices, conf);
  if (devices.empty()) {
    VYN_LOG_WARN("rpcNetDevices is empty.");
  } else {
    VYN_LOG_INFO("rpcNetDevices is " << devices);
    SetVariable("UCX_NET_DEVICES", devices);
  }

  const std::string interval = conf->GetString(kKeepAliveInterval, "");
  const std::string portRange = conf->GetString(kPortRange, "");
  if (protocol == gTcp) {
    SetVariable("UCX_TCP_PORT_RANGE", portRange);
    if (!interval.empty()) {
      SetVariable("UCX_TCP_KEEPINTVL", interval);
    }
  }
}

void RpcSetter::ResolveDeviceName(std::string& devices, const Ref<Configuration>& conf) {
  if (conf == nullptr) {
    VYN_LOG_ERROR("Param mConf is nullptr.");
    return;
  }
  const std::string configured = conf->GetString(kDevices, "");
  if (!configured.empty()) {
    devices += configured;
    return;
  }
  const std::string ipfilter = conf->GetString(kIpFilter, "");
  if (ipfilter.empty() || ipfilter.size() > kMaxIpFilter) {
    return;
  }
  std::vector<std::string> ifnames;
  ResolveIfnames(ipfilter, ifnames);
  const std::string protocol = conf->GetString(kProtocol, "");
  if (protocol == gTcp) {
    JoinVectors(devices, ifnames, ",");
    return;
  }

  std::string path = conf->GetString(kDevicesPath, "");
  if (!FileUtil::IsPathExist(path)) {
    VYN_LOG_WARN("The specified path " << path << " does not exist");
  }
  std::vector<std::string> ucxDevices;
  std::vector<std::string> matched;
  GetUcxDevices(ucxDevices, path);
  GetMatchedDeivces(ucxDevices, ifnames, matched, path);
  JoinVectors(devices, matched, ",");
}

void RpcSetter::ResolveIfnames(std::string ipfilter, std::vector<std::string>& ifnames) {
  if (ipfilter.empty()) {
    VYN_LOG_WARN("vyn.tessel.rpc.transport.ipfilter entry  is not set");
  }
  if (Failed(ResolveIterfaces(ifnames, ipfilter)) || ifnames.empty()) {
    VYN_LOG_WARN("No interfaces  found for config: vyn.tessel.rpc.transport.ipfilter: " << ipfilter);
  }
}

void RpcSetter::GetUcxDevices(std::vector<std::string>& devices, std::string& path) {
  if (!ForEachEntry(path, [&](std::string name) { devices.push_back(std::move(name)); })) {
    VYN_LOG_WARN("failed to open path " << path << " Please check  read permission or existence.");
  }
}

void RpcSetter::GetMatchedDeivces(std::vector<std::string>& ucxDevices, std::vector<std::string>& ifnames,
                                  std::vector<std::string>& matched, std::string& path) {
  for (const std::string& device : ucxDevices) {
    const std::string directory = path + device + "/device/net";
    if (!ForEachEntry(directory,
                      [&](std::string netName) { SelectDevices(netName, device, ifnames, matched); })) {
      VYN_LOG_WARN("Failed to open :  " << directory);
    }
  }
}

void RpcSetter::SelectDevices(std::string& netName, const std::string& ucxDevice,
                              std::vector<std::string> ifnames, std::vector<std::string>& matched) {
  for (const std::string& ifname : ifnames) {
    if (ifname == netName) {
      matched.push_back(ucxDevice + ":1");
      return;
    }
  }
}

void RpcSetter::JoinVectors(std::string& out, const std::vector<std::string>& parts,
                            const std::string& separator) {
  for (const std::string& part : parts) {
    if (!out.empty()) {
      out += separator;
    }
    out += part;
  }
}

}  // namespace vyn::common
