#include "common/log/error_info.h"
#include "vyn/broadcast.h"

const char* BroadcastGetLastErrorMessage() {
  const auto* info = vyn::common::RetrieveErrorInfo();
  return info == nullptr ? nullptr : info->mMessage.c_str();
}
