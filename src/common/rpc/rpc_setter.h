#pragma once

// Turns the transport settings of the configuration into the environment variables by which the transport
// takes them: UCX_TLS, UCX_NET_DEVICES, UCX_TCP_PORT_RANGE, UCX_TCP_KEEPINTVL. The configuration beats what
// the process inherited.
//
// Stateless. Belongs to start-up, before the first connection and before other threads read the environment.
// Nothing here fails the start-up: what cannot be found is a warning, and the variable stays as it was.

#include "common/config/configuration.h"
#include "common/util/ref.h"

#include <string>
#include <vector>

namespace vyn::common {

class RpcSetter {
 public:
  /// Sets the variables from `conf`. A null `conf` is logged and changes nothing.
  static void DefaultSetting(const Ref<Configuration>& conf);

  /// Appends to `devices` the comma-separated list of network devices that `conf` asks for: its explicit
  /// list, or what its IP filter finds: interfaces under the protocol "tcp", RDMA devices ("name:1") under
  /// any other.
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

  /// Appends `parts` to `out`, putting `separator` before each part unless `out` is still empty then.
  static void JoinVectors(std::string& out, const std::vector<std::string>& parts,
                          const std::string& separator);
};

}  // namespace vyn::common
