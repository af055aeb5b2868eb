// The operations on the tuning service and the checks of their arguments.

#include "common/message/heart_beat_message.h"
#include "common/rpc/client_forms.h"
#include "tuning/message/tuning_operation_codes.h"
#include "tuning/rpc/tuning_rpc_engine.h"

#include <new>

namespace vyn::tuning {

using common::BaseMessage;
using common::IsIdentifier;

unsigned int TuningRpcEngine::InputRegularMatchingForCommonInfo(const TuningCommonInfo& info) {
  VYN_FAIL_IF(!IsIdentifier(info.field) || !IsIdentifier(info.appId) || !IsIdentifier(info.queryIdent),
              VYN_ERR_INVALID_PARAM,
              "Common info of field: " << info.field << " appId: " << info.appId
                                       << " queryIdent: " << info.queryIdent << " is not correct");
  return VYN_OK;
}

unsigned int TuningRpcEngine::InputRegularMatchingForInferInfo(const TuningInferInfo& info) {
  if (Failed(InputRegularMatchingForCommonInfo(info))) {
    return VYN_ERR_INVALID_PARAM;
  }
  VYN_FAIL_IF(!IsIdentifier(info.inferType), VYN_ERR_INVALID_PARAM,
              "Metrics info of " << info.BuildKey() << " with inferType: " << info.inferType
                                 << " inferIdent: " << info.inferIdent << " is not correct");
  for (const auto& [key, value] : info.inferParameters) {
    VYN_FAIL_IF(!IsIdentifier(key), VYN_ERR_INVALID_PARAM,
                "Infer key param " << key << "->" << value << " of " << info.BuildKey() << " is not correct");
  }
  return VYN_OK;
}

unsigned int TuningRpcEngine::HeartBeat(const std::string& instanceName, unsigned char processType,
                                        const std::string& processName, const std::string& content,
                                        bool isAlive) {
  VYN_FAIL_IF(!IsIdentifier(instanceName) || !IsIdentifier(processName), VYN_ERR_INVALID_PARAM,
              "App identification appId does not compliance with specifications");
  const Ref<common::HeartBeatMessage> request(
      new (std::nothrow) common::HeartBeatMessage(instanceName, processType, processName, content, isAlive));
  VYN_CHECK_POINTER(request);
  VYN_FAIL_IF(Failed(SendAndWaitReply(TUNING_HEART_BEAT, request, BaseMessage::gNullPtr)), VYN_ERR_META_RPC,
              "Rpc failed to send heart beat message as instanceName: "
                  << instanceName << " processType: " << int{processType} << ", process name: " << processName
                  << " flag is: " << isAlive);
  return VYN_OK;
}

unsigned int TuningRpcEngine::RegisterSqlHistory(Ref<TuningSqlMessage>& message,
                                                 Ref<RegisterResult>& result) {
  VYN_CHECK_POINTER(message);
  VYN_FAIL_IF(Failed(InputRegularMatchingForCommonInfo(message->mCommonInfo)), VYN_ERR_INVALID_PARAM,
              "App identification appId does not compliance with specifications");
  const unsigned int status = SendAndWaitReply(SQL_HISTORY_REGISTER, message, result);
  VYN_FAIL_IF(Failed(status), VYN_ERR_TUNING_RPC,
              "Rpc failed to send app identification message as " << status);
  return VYN_OK;
}

unsigned int TuningRpcEngine::UnRegisterSqlHistory(Ref<TuningSqlMessage>& message) {
  VYN_CHECK_POINTER(message);
  VYN_FAIL_IF(Failed(InputRegularMatchingForCommonInfo(message->mCommonInfo)), VYN_ERR_INVALID_PARAM,
              "Unregister query identification does not compliance with specifications");
  const unsigned int status = SendAndWaitReply(SQL_HISTORY_UNREGISTER, message, BaseMessage::gNullPtr);
  VYN_FAIL_IF(Failed(status), VYN_ERR_TUNING_RPC, "Rpc failed to send unregister message as " << status);
  return VYN_OK;
}

unsigned int TuningRpcEngine::ReportTuningMetrics(Ref<TuningMetrics>& metrics) {
  VYN_CHECK_POINTER(metrics);
  bool valid = !Failed(InputRegularMatchingForCommonInfo(metrics->mCommonInfo));
  if (valid && !IsIdentifier(metrics->metricsType)) {
    VYN_LOG_ERROR("Metrics info of " << metrics->mCommonInfo.BuildKey()
                                     << " with metricsType: " << metrics->metricsType
                                     << " metricsIdent: " << metrics->metricsIdent << " is not correct");
    valid = false;
  }
  VYN_FAIL_IF(!valid, VYN_ERR_INVALID_PARAM,
              "OrvaneTuning metrics query identification does not compliance with specifications");
  const unsigned int status = SendAndWaitReply(REPORT_TUNING_METRICS, metrics, BaseMessage::gNullPtr);
  VYN_FAIL_IF(Failed(status), VYN_ERR_TUNING_RPC, "Rpc failed to send app tuning message as " << status);
  return VYN_OK;
}

// Logs nothing about a failed call: SendWithRetry and the pool have logged it.
unsigned int TuningRpcEngine::InferByHistory(Ref<InferIdentification>& identification,
                                             Ref<InferResult>& result) {
  VYN_CHECK_POINTER(identification);
  VYN_FAIL_IF(Failed(InputRegularMatchingForInferInfo(identification->mInferInfo)), VYN_ERR_INVALID_PARAM,
              "App identification does not compliance with specifications");
  return Failed(SendAndWaitReply(INFER_BY_HISTORY, identification, result)) ? VYN_ERR_TUNING_RPC : VYN_OK;
}

}  // namespace vyn::tuning
