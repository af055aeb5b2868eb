#pragma once

// Checks the arguments of the library's functions and converts them for the calls to a node. A refused
// argument never reaches a node. The result is what a node would have answered, or kBmLocalError for a
// request that could not even be sent. Threads: no state, any thread.

#include "platform/fabric/client/bm_functions.h"
#include "platform/fabric/protocol/access.h"
#include "platform/fabric/protocol/names.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace vyn::fabric {

inline int ParseAccess(const char* ns, const char* token, Access& access) {
  if (ns == nullptr || token == nullptr) {
    return kBmLocalError;
  }
  access = {ns, token};
  if (!IsNamespaceName(access.ns)) {
    return -ENOENT;
  }
  return access.token.size() <= kMaxTokenLength ? 0 : -EACCES;
}

inline int ParseObjectId(const char* text, std::string_view& id) {
  id = text == nullptr ? std::string_view() : std::string_view(text, ::strnlen(text, kIdLength + 1));
  return IsObjectId(id) ? 0 : kBmLocalError;
}

inline int ParseObjectName(const BmSecContext* context, ObjectName& object) {
  if (context == nullptr || ParseObjectId(context->bmId, object.id) != 0) {
    return kBmLocalError;
  }
  return ParseAccess(context->ns, context->token, object.access);
}

}  // namespace vyn::fabric
