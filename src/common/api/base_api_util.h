#pragma once

// What the programs and the SDK share at start-up: the environment, the configuration file, the TLS
// libraries, the folder of the installation and the security settings for the RPC transport. Also the
// registry of heartbeat senders.
//
// Only the thread that starts the process may call the set-up functions, because setenv is not safe while
// another thread calls getenv. Any thread may call the functions for the security maps and the registry.

#include "common/config/configuration.h"
#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <map>
#include <string>
#include <unordered_map>

namespace vyn::common {

class HeartBeatThread;

class BaseApiUtil {
 public:
  /// Sets VYN_HOME, VYN_VERSION and VYN_BINARY_TYPE. Call it before the first EnvHelper::GetInstance.
  /// Returns: 0; 1 when one cannot be set, with a line on standard output. Those after it are not set then.
  static unsigned int SetVynEnv(const char* home, const char* version, const char* binaryType);

  /// Loads `home`/conf/vyn.conf as the process's configuration, unless there is one already, and stores it in
  /// `conf`. Returns: 0; 2000059 with a last-error record if the file does not exist (`conf` is unchanged
  /// then); 1 if the file is refused.
  static unsigned int ConfigInit(const std::string& home, Ref<Configuration>& conf);

  /// Opens the two OpenSSL libraries that `conf` names. Call it before the first connection with TLS.
  /// Returns: 0, or 1 with a last-error record.
  static unsigned int SetOpensslDLPath(const Ref<Configuration>& conf);

  /// Sets VYN_HOME to the part of this library's directory that precedes the first `name`. Returns: that
  /// part; empty on failure, with a line on standard output.
  static std::string GetDynamicPath(const std::string& name);

  /// Finds the directory of the loaded object that contains `address`.
  /// \param directory receives a text that the caller frees with free(); unchanged on failure. Returns: 0 or
  /// 1.
  static unsigned int GetModuleFileName(long* address, char*& directory);

  /// Does nothing. GetDynamicPath uses its address to find this library's file.
  static void EmptyFunc();

  /// Fill `map` with the security settings of an RPC client or an RPC server. A key that `map` already has
  /// keeps its value; values are not checked. \param serverHost host name in the server's principal.
  /// \param sdk true in an engine process, which has client credentials of its own; false in a service.
  /// Returns: 0; 2000057 before the process's configuration is loaded.
  static unsigned int GetSecurityConf4Client(std::map<std::string, const std::string>& map,
                                             const std::string& serverHost, bool sdk);
  static unsigned int GetSecurityConf4Server(std::map<std::string, const std::string>& map);

  /// Fill only the TLS and key store entries of these maps. Require: `conf` is not null.
  static void GetPlxTlsConf4Client(Ref<Configuration>& conf, std::map<std::string, const std::string>& map,
                                   bool sdk);
  static void GetPlxTlsConf4Server(Ref<Configuration>& conf, std::map<std::string, const std::string>& map);

  // The heartbeat senders of this process, one for each application. Defined beside the sender, in
  // tessel/sdk/heart_beat.

  /// Starts a sender. Returns: 0; 1 if the application has one already, which keeps running; 2000057 without
  /// memory.
  static unsigned int StartHeartBeat(const std::string& appName, unsigned char processType,
                                     const std::string& processName, const std::string& content);
  /// Takes the application's sender out of the registry and stops it. Returns: 0; 1 if there is none.
  static unsigned int StopHeartBeat(const std::string& appName, unsigned char processType,
                                    const std::string& processName, const std::string& content);
  /// Registers `thread`. Returns: 0; 1 if the name is taken.
  static unsigned int PutIfAbsent(const std::string& appName, const Ref<HeartBeatThread>& thread);
  /// Moves the sender of `appName` from the registry into `thread`. Returns: 0; 1 if there is none.
  static unsigned int GetIfExist(const std::string& appName, Ref<HeartBeatThread>& thread);

  /// The senders by application name. Never destroyed.
  static std::unordered_map<std::string, Ref<HeartBeatThread>>& g_HeartBeatFlag VYN_GUARDED_BY(heartBeatLock);
  /// Never held while a sender starts or stops.
  static sync::Mutex heartBeatLock;
};

}  // namespace vyn::common
