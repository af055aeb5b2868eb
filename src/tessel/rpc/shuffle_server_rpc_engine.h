#pragma once

// The typed client of the node server of this host, always at 127.0.0.1.
//
// A process has one instance. Threads: after CreateInstance or GetInstance and one Initialize, any number of
// threads may call the operations. Only Initialize writes the statics below, before the first call.
//
// Every operation makes one call and retries nothing. Returns: 0; 1 after any failure, with the cause in the
// log; 2000057 without memory for the request. An operation that refuses an argument, for example a null
// request, sends nothing. The caller provides the response objects; an operation fills them on success.

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

  /// Makes a new instance, which replaces the process's instance. Returns: the instance; null without memory.
  static Ref<ShuffleServerRPCEngine> CreateInstance();
  /// Returns: the process's instance, which it makes when there is none; null when Initialize was called with
  /// another `isSdk`.
  static Ref<ShuffleServerRPCEngine> GetInstance(bool isSdk);

  /// Reads the configuration, makes the pool and connects. Returns: 0; 2000057 without configuration or
  /// memory; the status of the failed connect. In that case the pool is kept, and later calls try to connect.
  std::uint32_t Initialize(int connectionCount, bool isSdk);
  /// Adds the security settings for the node server to `conf`. An existing entry keeps its value.
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

  /// \param size in bytes, 1 to maxBlobSize.
  std::uint32_t BlobCreate(const std::string& ns, const std::string& bagName, Ref<ShuffleBlob>& blob,
                           unsigned long size, unsigned short number, const std::string& token);
  /// Empties `blobs`, also on failure.
  std::uint32_t BlobBatchDelete(std::vector<Ref<ShuffleBlobId>>& blobs, const std::string& ns,
                                unsigned short number, const std::string& token);
  std::uint32_t GetLocalBlob(const Ref<LocalBlobGetRequest>& request, Ref<LocalBlob>& blob);
  std::uint32_t CommitLocalBlob(const Ref<LocalBlobCommitRequest>& request,
                                Ref<LocalBlobCommitResponse>& response);

  /// The process's instance. CreateInstance and GetInstance use a lock for it; other code may read it only
  /// while CreateInstance cannot run. Never destroyed.
  static Ref<ShuffleServerRPCEngine>& gShuffleServerRPCEngine;
  static std::atomic<bool> mPoolMode;  ///< whether Initialize has run
  static std::atomic<bool> mIsSdk;     ///< true in an engine process, false in vynd
  static std::string& mShuffleServerIp;
  static std::int16_t mShuffleServerPort;
  // Time-outs in milliseconds.
  static std::int64_t mRpcTimeout;  ///< passed to the pool; limits no call
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
