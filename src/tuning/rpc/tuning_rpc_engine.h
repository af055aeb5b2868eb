#pragma once

// The typed client of the tuning service, which runs on the host of the metadata leader, with a port of its
// own.
//
// Threads: after CreateInstance and Initialize, any number of threads may call the operations. The client
// follows the leader and retries as cluster/leader/leader_rpc_engine.h says. It does not ask for the leader:
// other code in the process must keep MetaNodeInfo current.
//
// Operations return 0; 2000013 for a refused argument, before anything is sent; 2000057 without memory;
// 2020025, or 2060009 for a heartbeat, when the call failed, with its code in the log. The caller provides
// the response objects; an operation fills them on success. When a response Ref holds null, the operation
// reads no response body.

#include "cluster/leader/leader_rpc_engine.h"
#include "tuning/message/tuning_messages.h"

#include <cstdint>
#include <string>

namespace vyn::tuning {

using common::Ref;

class TuningRpcEngine : public cluster::LeaderRPCEngine {
 public:
  TuningRpcEngine(long timeout, bool isSdk, unsigned short groupIndex);
  ~TuningRpcEngine() override = default;

  /// Makes a new instance, which replaces the process's instance. Does not connect. \param timeout
  /// milliseconds for every call. \param groupIndex the group of workers at the service. Returns: the
  /// instance; null without memory.
  static Ref<TuningRpcEngine> CreateInstance(long timeout, bool isSdk, unsigned short groupIndex);
  /// Returns: the process's instance, which may be null. May run while another thread calls CreateInstance.
  static Ref<TuningRpcEngine> GetInstance();

  /// Connects to the leader that MetaNodeInfo names. Returns: 0; 2000057 without a configuration; 1 without a
  /// MetaNodeInfo; the failure of InitializeEnginePool, which is the pool's status when no connection could
  /// be made.
  unsigned int Initialize();
  /// One operation with the retry policy. \param response may hold null.
  unsigned int SendAndWaitReply(short opcode, const Ref<common::BaseMessage>& request,
                                const Ref<common::BaseMessage>& response);

  /// `content` may be any text.
  unsigned int HeartBeat(const std::string& instanceName, unsigned char processType,
                         const std::string& processName, const std::string& content, bool isAlive);
  unsigned int RegisterSqlHistory(Ref<TuningSqlMessage>& message, Ref<RegisterResult>& result);
  unsigned int UnRegisterSqlHistory(Ref<TuningSqlMessage>& message);
  unsigned int ReportTuningMetrics(Ref<TuningMetrics>& metrics);
  unsigned int InferByHistory(Ref<InferIdentification>& identification, Ref<InferResult>& result);

  /// The checks of the operations; `inferIdent` and the values of the parameters may be any text. Returns: 0
  /// or 2000013.
  unsigned int InputRegularMatchingForCommonInfo(const TuningCommonInfo& info);
  unsigned int InputRegularMatchingForInferInfo(const TuningInferInfo& info);

  /// The process's instance. CreateInstance and GetInstance use a lock for it; other code may read it only
  /// while CreateInstance cannot run. Never destroyed.
  static Ref<TuningRpcEngine>& mTuningRpcEngine;
};

}  // namespace vyn::tuning
