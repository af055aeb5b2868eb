#pragma once

// The texts that name namespaces and objects: which are well-formed, and what an id tells.

#include <cstdint>
#include <string>
#include <string_view>

namespace vyn::bm {

/// 1 to kMaxNamespaceLength characters of [A-Za-z0-9_-]: what can name a namespace, and be a folder of the
/// pool.
bool IsNamespaceName(std::string_view text);

/// Whether `text` has the form of an object's id.
bool IsObjectId(std::string_view text);

/// The node that owns the object. Requires: IsObjectId(id).
std::uint16_t OwnerOf(std::string_view id);

/// An id that no node gave before or will give again, and that nobody can guess: 330 bits of the kernel's
/// random numbers. Returns: the empty text when the kernel has none to give.
std::string MakeObjectId(std::uint16_t owner);

}  // namespace vyn::bm
