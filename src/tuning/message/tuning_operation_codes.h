#pragma once

// The operation codes of the tuning service and their names.

#include "common/message/operation_table.h"

namespace vyn::tuning {

#define VYN_TUNING_SERVER_OPERATIONS(OPERATION) \
  OPERATION(SQL_HISTORY_REGISTER, 0)            \
  OPERATION(SQL_HISTORY_UNREGISTER, 1)          \
  OPERATION(TUNING_HEART_BEAT, 2)               \
  OPERATION(REPORT_TUNING_METRICS, 3)           \
  OPERATION(INFER_BY_HISTORY, 4)
VYN_OPERATION_TABLE(TuningServer, gTuningServerNames, VYN_TUNING_SERVER_OPERATIONS)

}  // namespace vyn::tuning
