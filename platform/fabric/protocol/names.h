#pragma once

// The names of namespaces and objects: which are well-formed, and which node an id belongs to. Threads: no
// state, any thread.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vyn::fabric {

inline constexpr std::size_t kMaxNamespaceLength = 255;
inline constexpr std::size_t kMaxTokenLength = 4096;
/// An object's id: 'b', four hexadecimal digits of the owner's node id, 55 random characters of
/// [A-Za-z0-9_-].
inline constexpr std::size_t kIdLength = 60;

/// Whether `text` can name a namespace, which is also a folder of the pool: 1 to kMaxNamespaceLength
/// characters of [A-Za-z0-9_-].
bool IsNamespaceName(std::string_view text);

/// Whether `text` has the form of an object's id.
bool IsObjectId(std::string_view text);

/// The node that owns the object. Requires: IsObjectId(id).
std::uint16_t OwnerOf(std::string_view id);

/// A new id, unique among all nodes and unguessable: 330 random bits from the kernel. Returns: the empty text
/// when the kernel gives no random bytes.
std::string MakeObjectId(std::uint16_t owner);

}  // namespace vyn::fabric
