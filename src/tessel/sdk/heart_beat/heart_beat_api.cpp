// The exported function that starts and stops an application's heartbeats.

#include "common/api/base_api_util.h"
#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "vyn/broadcast.h"

using vyn::Failed;
using vyn::common::BaseApiUtil;
using vyn::common::CheckInputWithCharPtr;

std::uint32_t HeartBeat(const char* appName, unsigned char processType, const char* processName,
                        const char* content, bool start) try {
  if (Failed(CheckInputWithCharPtr(appName, false, false)) ||
      Failed(CheckInputWithCharPtr(processName, false, false)) ||
      Failed(CheckInputWithCharPtr(content, true, false))) {
    return VYN_ERR_BM_INVALID;
  }
  if (!vyn::tessel::RefreshMetaClient()) {
    VYN_LOG_ERROR("Failed to get meta rpc cli");
    return VYN_ERR_GENERIC;
  }
  const unsigned int status = start ? BaseApiUtil::StartHeartBeat(appName, processType, processName, content)
                                    : BaseApiUtil::StopHeartBeat(appName, processType, processName, content);
  return Failed(status) ? VYN_ERR_META_CLIENT : VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
