#pragma once

// The arguments of the library's functions, checked and brought into the form of the calls behind them.
// Nothing that is refused here reaches a node. The results name what a node would have answered, or
// kBmLocalError for what could not be asked at all. Threads: no state, any thread.

#include "platform/fabric/protocol/access.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace vyn::bm {

inline int GetAccess(const char* ns, const char* token, Access& access) {
  if (ns == nullptr || token == nullptr) {
    return kBmLocalError;
  }
  access = {ns, token};
  if (!IsNamespaceName(access.ns)) {
    return -ENOENT;
  }
  return access.token.size() <= kMaxTokenLength ? 0 : -EACCES;
}

inline int GetId(const char* text, std::string_view& id) {
  id = text == nullptr ? std::string_view() : std::string_view(text, ::strnlen(text, kIdLength + 1));
  return IsObjectId(id) ? 0 : kBmLocalError;
}

inline int GetObject(const BmSecContext* context, ObjectName& object) {
  if (context == nullptr || GetId(context->bmId, object.id) != 0) {
    return kBmLocalError;
  }
  return GetAccess(context->ns, context->token, object.access);
}

}  // namespace vyn::bm
