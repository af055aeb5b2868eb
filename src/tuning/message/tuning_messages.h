#pragma once

// Messages of the tuning service: the history of queries with their metrics, and the settings inferred from
// it. Their tables are not promised to other components (schema/tuning.fbs). common/message/base_message.h
// says how a message is used and on which threads.

#include "common/message/base_message.h"

#include <map>
#include <string>

namespace vyn::tuning {

struct TTuningSqlMessage;
struct TRegisterResult;
struct TTuningMetrics;
struct TInferIdentification;
struct TInferResult;

/// Names a query.
struct TuningCommonInfo {
  std::string field;  ///< the subject area
  std::string appId;
  std::string queryIdent;

  /// Returns: "{field}_{appId}_{queryIdent}", the name of the query in log lines.
  std::string BuildKey() const;
};

/// Names an inference about a query.
struct TuningInferInfo : TuningCommonInfo {
  std::string inferType;
  std::string inferIdent;
  std::map<std::string, std::string> inferParameters;
};

/// Registers the history of a query, or unregisters it.
class TuningSqlMessage : public common::Message<TTuningSqlMessage> {
 public:
  TuningCommonInfo mCommonInfo;
  VYN_MESSAGE_FIELDS(mCommonInfo.field, mCommonInfo.appId, mCommonInfo.queryIdent)
};

/// The reply to a registration.
class RegisterResult : public common::Message<TRegisterResult> {
 public:
  bool registered = false;
  std::string detail;  ///< why not, for people
  VYN_MESSAGE_FIELDS(registered, detail)
};

/// Metrics of a query.
class TuningMetrics : public common::Message<TTuningMetrics> {
 public:
  TuningCommonInfo mCommonInfo;
  std::string metricsType;
  std::string metricsIdent;
  std::map<std::string, std::string> metrics;  ///< by name
  VYN_MESSAGE_FIELDS(mCommonInfo.field, mCommonInfo.appId, mCommonInfo.queryIdent, metricsType, metricsIdent,
                     metrics)
};

/// Asks for an inference.
class InferIdentification : public common::Message<TInferIdentification> {
 public:
  TuningInferInfo mInferInfo;
  VYN_MESSAGE_FIELDS(mInferInfo.field, mInferInfo.appId, mInferInfo.queryIdent, mInferInfo.inferType,
                     mInferInfo.inferIdent, mInferInfo.inferParameters)
};

/// The reply to InferIdentification.
class InferResult : public common::Message<TInferResult> {
 public:
  bool inferred = false;                          ///< whether the history was enough
  std::map<std::string, std::string> parameters;  ///< proposed values by name
  VYN_MESSAGE_FIELDS(inferred, parameters)
};

}  // namespace vyn::tuning
