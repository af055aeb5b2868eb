#include "platform/rpc/wire/status.h"

std::string VynRpcStatusString(int status) {
  using namespace vyn::rpc;
  switch (status) {
    case kOk:
      return "success";
    case kNoAnswer:
      return "the server gave no answer";
    case kNoHandler:
      return "the server does not know this message";
    case kProtocolError:
      return "the peer does not speak this protocol";
    case kMessageTooLong:
      return "message too long";
    case kBusy:
      return "the server has too many connections";
    case kNoMemory:
      return "out of memory";
    case kTlsError:
      return "TLS handshake failed";
    case kBadSetting:
      return "the transport settings cannot be honoured";
    case kInvalidArgument:
      return "invalid argument";
    case kConnectionLost:
      return "connection refused, reset or lost";
    case kTimedOut:
      return "timed out";
    default:
      return "unknown status";
  }
}
