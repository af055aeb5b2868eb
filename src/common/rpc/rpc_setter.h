#pragma once

// Copies the transport settings of the configuration into the environment variables from which the RPC
// transport reads them: UCX_TLS, UCX_NET_DEVICES, UCX_TCP_PORT_RANGE, UCX_TCP_KEEPINTVL. The configuration
// overrides inherited values.
//
// No state. Call DefaultSetting during start-up, before the first connection and before other threads read
// the environment. It cannot fail: when it finds no devices, it logs a warning and leaves UCX_NET_DEVICES
// unchanged.

#include "common/config/configuration.h"
#include "common/util/ref.h"

#include <string>
#include <vector>

namespace vyn::common {

class RpcSetter {
 public:
  /// Sets the variables from `conf`. A null `conf` is logged and changes nothing.
  static void DefaultSetting(const Ref<Configuration>& conf);

  /// Appends to `devices` the comma-separated network devices that `conf` selects: its list of devices, or
  /// else the matches of its IP filter. With the protocol "tcp" these are interfaces, with any other RDMA
  /// devices ("name:1").
  static void ResolveDeviceName(std::string& devices, const Ref<Configuration>& conf);

  /// Appends the local interfaces whose own network is one of `ipfilter`, such as
  /// "192.168.2.1/24,10.0.0.1/8".
  static void ResolveIfnames(std::string ipfilter, std::vector<std::string>& ifnames);

  /// Appends the names of the RDMA devices, which are the entries of the directory `path`.
  static void GetUcxDevices(std::vector<std::string>& devices, std::string& path);

  /// Appends "device:1" for every network interface of a device that is one of `ifnames`. The interfaces of a
  /// device are the entries of `path` + device + "/device/net"; `path` must end in a slash.
  static void GetMatchedDeivces(std::vector<std::string>& ucxDevices, std::vector<std::string>& ifnames,
                                std::vector<std::string>& matched, std::string& path);

  /// Appends `ucxDevice` + ":1" to `matched` if `netName` is one of `ifnames`.
  static void SelectDevices(std::string& netName, const std::string& ucxDevice,
                            std::vector<std::string> ifnames, std::vector<std::string>& matched);

  /// Appends `parts` to `out`, each with `separator` before it unless `out` is still empty.
  static void JoinVectors(std::string& out, const std::vector<std::string>& parts,
                          const std::string& separator);
};

}  // namespace vyn::common
