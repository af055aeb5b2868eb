#pragma once

// What the entry points of the system share: the environment, the configuration file, the TLS libraries, the
// place of the installation, the map of security settings that the RPC layer takes, and the registry of
// heartbeat senders.
//
// The set-up functions belong to the thread that starts the process up: setenv is not safe beside getenv. The
// security maps and the registry may be used from any thread.

#include "common/config/configuration.h"
#include "common/util/ref.h"

#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

namespace vyn::common {

class HeartBeatThread;

class BaseApiUtil {
 public:
  /// Sets VYN_HOME, VYN_VERSION and VYN_BINARY_TYPE. To be called before the first EnvHelper::GetInstance.
  /// Returns: 0; 1 at the first that cannot be set, with a line on standard output.
  static unsigned int SetVynEnv(const char* home, const char* version, const char* binaryType);

  /// Loads `home`/conf/vyn.conf as the process's configuration, unless there is one already.
  /// Returns: 0; 2000059 with a record if the file does not exist (`conf` is left alone); 1 if it is refused.
  static unsigned int ConfigInit(const std::string& home, Ref<Configuration>& conf);

  /// Opens the two TLS libraries that `conf` names. To be called before the first secured connection.
  /// Returns: 0, or 1 with a record.
  static unsigned int SetOpensslDLPath(const Ref<Configuration>& conf);

  /// Takes the directory of this library, cuts it before the first occurrence of `name`, sets VYN_HOME to the
  /// rest and returns it. Returns: the empty text on failure, with a line on standard output.
  static std::string GetDynamicPath(const std::string& name);

  /// Finds the directory of the loaded object that contains `address`.
  /// \param directory takes a text that the caller frees with free(); untouched on failure. Returns: 0 or 1.
  static unsigned int GetModuleFileName(long* address, char*& directory);

  /// Does nothing; its address tells GetDynamicPath which library this is.
  static void EmptyFunc();

  /// Fill `map` with what a client or a server of the RPC layer needs to secure its connections. A key that
  /// `map` already has keeps its value; values are not checked. \param serverHost host name in the server's
  /// principal. \param sdk whether this process is an engine's, with client credentials of its own, and not a
  /// service's. Returns: 0; 2000057 before the process's configuration is loaded.
  static unsigned int GetSecurityConf4Client(std::map<std::string, const std::string>& map,
                                             const std::string& serverHost, bool sdk);
  static unsigned int GetSecurityConf4Server(std::map<std::string, const std::string>& map);

  /// The TLS and key store part of the two maps above. Require: `conf` is not empty.
  static void GetPlxTlsConf4Client(Ref<Configuration>& conf, std::map<std::string, const std::string>& map,
                                   bool sdk);
  static void GetPlxTlsConf4Server(Ref<Configuration>& conf, std::map<std::string, const std::string>& map);

  // The heartbeat senders of this process, one an application. Defined with the sender, in
  // tessel/sdk/heart_beat.

  /// Starts a sender. Returns: 0; 1 if the application has one already, which goes on; 2000057 without
  /// memory.
  static unsigned int StartHeartBeat(const std::string& appName, unsigned char processType,
                                     const std::string& processName, const std::string& content);
  /// Takes the application's sender out of the registry and stops it. Returns: 0; 1 if there is none.
  static unsigned int StopHeartBeat(const std::string& appName, unsigned char processType,
                                    const std::string& processName, const std::string& content);
  /// Registers `thread`. Returns: 0; 1 if the name is taken.
  static unsigned int PutIfAbsent(const std::string& appName, const Ref<HeartBeatThread>& thread);
  /// Hands the entry of `appName` to `thread` and removes it from the registry. Returns: 0; 1 if there is
  /// none.
  static unsigned int GetIfExist(const std::string& appName, Ref<HeartBeatThread>& thread);

  /// Sender by application name; guarded by heartBeatLock. Never destroyed.
  static std::unordered_map<std::string, Ref<HeartBeatThread>>& g_HeartBeatFlag;
  /// Never held while a sender starts or stops.
  static std::mutex heartBeatLock;
};

}  // namespace vyn::common
