#pragma once

// The typed client of the tuning service, which runs beside the metadata leader: the same host, a port of its
// own.
//
// CreateInstance, Initialize, then any number of threads may call the operations. The client follows the
// leader and retries as cluster/leader_rpc_engine.h tells. It asks nobody for the leader: MetaNodeInfo must
// be kept current by somebody else in the process.
//
// Operations return 0; 2000013 when an argument was refused, and then nothing is sent; 2000057 without
// memory; 2020025, or 2060009 for a heartbeat, when the call failed, with its code in the log. Responses are
// the caller's objects, filled on success; a response that holds null is not asked for.

#include "cluster/leader_rpc_engine.h"
#include "tuning/message/tuning_messages.h"

#include <cstdint>
#include <string>

namespace vyn::tuning {

using common::Ref;

class TuningRpcEngine : public cluster::LeaderRPCEngine {
 public:
  TuningRpcEngine(long timeout, bool isSdk, unsigned short groupIndex);
  ~TuningRpcEngine() override = default;

  /// Makes a new instance and puts it in place of the process's; does not connect. \param timeout
  /// milliseconds for every call. \param groupIndex the group of workers at the peer. Returns: it; null
  /// without memory.
  static Ref<TuningRpcEngine> CreateInstance(long timeout, bool isSdk, unsigned short groupIndex);
  /// Returns: the process's instance, which may be null. Safe beside CreateInstance.
  static Ref<TuningRpcEngine> GetInstance();

  /// Connects to the leader that MetaNodeInfo names. Returns: 0; 2000057 without configuration; 1 without
  /// leader record; the failure of InitializeEnginePool, which is the pool's own when no connection could be
  /// made.
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

  /// The last instance made. CreateInstance and GetInstance reach it under a lock of their own; read it
  /// directly only where CreateInstance cannot run. Never destroyed.
  static Ref<TuningRpcEngine>& mTuningRpcEngine;
};

}  // namespace vyn::tuning
