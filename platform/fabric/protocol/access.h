#pragma once

// The right to a namespace and the name of an object, and how they stand in a frame's arguments.

#include "platform/fabric/protocol/codec.h"

#include <string_view>

namespace vyn::bm {

struct Access {
  std::string_view ns;
  std::string_view token;
};

/// Names an object, with the right to it.
struct ObjectName {
  Access access;
  std::string_view id;
};

inline Writer& Put(Writer& writer, const Access& access) { return writer.Text(access.ns).Text(access.token); }
inline Writer& Put(Writer& writer, const ObjectName& object) {
  return Put(writer, object.access).Text(object.id);
}

inline Access GetAccess(Reader& arguments) {
  const std::string_view ns = arguments.Text();
  return {ns, arguments.Text()};
}
inline ObjectName GetObject(Reader& arguments) {
  const Access access = GetAccess(arguments);
  return {access, arguments.Text()};
}

}  // namespace vyn::bm
