#pragma once

// The operation codes of the tuning service and their names.

#include <map>
#include <string>

namespace vyn::tuning {

enum TuningServer : unsigned short {
  SQL_HISTORY_REGISTER = 0,
  SQL_HISTORY_UNREGISTER = 1,
  TUNING_HEART_BEAT = 2,
  REPORT_TUNING_METRICS = 3,
  INFER_BY_HISTORY = 4,
};

static const std::map<TuningServer, std::string> gTuningServerNames = {
    {SQL_HISTORY_REGISTER, "SQL_HISTORY_REGISTER"}, {SQL_HISTORY_UNREGISTER, "SQL_HISTORY_UNREGISTER"},
    {TUNING_HEART_BEAT, "TUNING_HEART_BEAT"},       {REPORT_TUNING_METRICS, "REPORT_TUNING_METRICS"},
    {INFER_BY_HISTORY, "INFER_BY_HISTORY"},
};

}  // namespace vyn::tuning
