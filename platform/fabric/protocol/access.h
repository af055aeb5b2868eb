#pragma once

// The right to a namespace and the name of an object, and how a frame's arguments hold them. The texts are
// views: what they refer to must outlive them. Threads: no state, any thread.

#include "platform/fabric/protocol/codec.h"

#include <string_view>

namespace vyn::fabric {

struct Access {
  std::string_view ns;
  std::string_view token;
};

/// Names an object and proves the right to it.
struct ObjectName {
  Access access;
  std::string_view id;
};

inline Writer& Put(Writer& writer, const Access& access) { return writer.Text(access.ns).Text(access.token); }
inline Writer& Put(Writer& writer, const ObjectName& object) {
  return Put(writer, object.access).Text(object.id);
}

inline Access ReadAccess(Reader& arguments) {
  const std::string_view ns = arguments.Text();
  return {ns, arguments.Text()};
}
inline ObjectName ReadObjectName(Reader& arguments) {
  const Access access = ReadAccess(arguments);
  return {access, arguments.Text()};
}

}  // namespace vyn::fabric
