#pragma once

// The typed client of the server daemon on this host, always at 127.0.0.1.
//
// One object a process: CreateInstance or GetInstance, Initialize once, then any number of threads may call
// the operations. The statics below are written by Initialize alone, before the calls begin.
//
// Every operation makes one call and retries nothing. Returns: 0; 1 on any failure, whatever came over the
// wire, with the cause in the log; 2000057 when the operation could not allocate its request. A refused
// argument, a null request among them, sends nothing. Responses are the caller's objects, filled on success.

#include "common/config/configuration.h"
#include "common/rpc/rpc_engine_base.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/local_blob_messages.h"
#include "tessel/message/shuffle/shuffle_blob.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vyn::tessel {

using common::Ref;

class ShuffleServerRPCEngine : public common::RPCEngineBase {
 public:
  ShuffleServerRPCEngine() = default;
  ~ShuffleServerRPCEngine() override = default;

  /// Makes a new instance and puts it in place of the process's. Returns: it; null without memory.
  static Ref<ShuffleServerRPCEngine> CreateInstance();
  /// Returns: the process's instance, made when there is none; null when it was initialised for the other
  /// side, the SDK's or the daemon's, than `isSdk` says.
  static Ref<ShuffleServerRPCEngine> GetInstance(bool isSdk);

  /// Reads the configuration, makes the pool and connects. Returns: 0; 2000057 without configuration or
  /// memory; why no connection could be made, in which case the pool stands and later calls try again.
  std::uint32_t Initialize(int connectionCount, bool isSdk);
  /// Fills `conf` with the security settings for this peer. An entry that is there keeps its value.
  void GetSecurityConf(std::map<std::string, const std::string>& conf, bool isSdk);

  // Applications and the leader.

  std::uint32_t AppRegister(const std::string& appId, bool flag, Ref<NodeIdResponse>& response,
                            const std::string& token);
  std::uint32_t AppUnregister(const std::string& appId, const std::string& token);
  std::uint32_t GetMetaLeaderInfo(const Ref<MetaLeaderInformation>& request,
                                  Ref<MetaLeaderInformation>& response);

  // Broadcast variables. The token is not sent.

  std::uint32_t BroadcastBlockBatchCreate(const Ref<BroadcastBlockBatch>& request,
                                          Ref<BroadcastBlockInfo>& response, const std::string& token);
  std::uint32_t BroadcastBlockBatchFetch(const Ref<BroadcastVar>& request, Ref<BroadcastBlockInfo>& response,
                                         const std::string& token);

  // Shuffle blobs.

  /// \param size bytes, 1 to maxBlobSize.
  std::uint32_t BlobCreate(const std::string& ns, const std::string& bagName, Ref<ShuffleBlob>& blob,
                           unsigned long size, unsigned short number, const std::string& token);
  /// Takes the list out of `blobs`, which is empty afterwards, also on failure.
  std::uint32_t BlobBatchDelete(std::vector<Ref<ShuffleBlobId>>& blobs, const std::string& ns,
                                unsigned short number, const std::string& token);
  std::uint32_t GetLocalBlob(const Ref<LocalBlobGetRequest>& request, Ref<LocalBlob>& blob);
  std::uint32_t CommitLocalBlob(const Ref<LocalBlobCommitRequest>& request,
                                Ref<LocalBlobCommitResponse>& response);

  /// The process's instance. CreateInstance and GetInstance reach it under a lock of their own; read it
  /// directly only where CreateInstance cannot run. Never destroyed.
  static Ref<ShuffleServerRPCEngine>& gShuffleServerRPCEngine;
  static std::atomic<bool> mPoolMode;  ///< Initialize has run
  static std::atomic<bool> mIsSdk;     ///< the process is an SDK user, not the daemon's own side
  static std::string& mShuffleServerIp;
  static std::int16_t mShuffleServerPort;
  // Time-outs in milliseconds.
  static std::int64_t mRpcTimeout;  ///< the pool's; reaches no call
  static std::int64_t mLocalBlobGetTimeout;
  static std::int64_t mLocalBlobCommitTimeout;
  static std::int64_t mBroadcastVarCreateTimeout;
  static std::int64_t mBroadcastVarFetchTimeout;
  static std::uint64_t maxBlobSize;  ///< bytes

 private:
  Ref<common::Configuration> mConf;
  bool mTlsEnable = true;
  bool mAuthEnable = true;
};

}  // namespace vyn::tessel
