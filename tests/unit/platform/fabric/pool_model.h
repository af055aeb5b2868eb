#pragma once

// What two fabric nodes hold after the calls that have succeeded, and random arguments for the next call.

#include "platform/fabric/client/bm_functions.h"
#include "platform/fabric/protocol/names.h"
#include "support/random_steps.h"
#include "support/test.h"

namespace vyn::fabric {

inline constexpr std::uint64_t kPage = 4096;
inline constexpr std::uint64_t kCapacity = 5000 * kPage + 100;

inline std::uint64_t Pages(std::uint64_t size) {
  return (std::max<std::uint64_t>(size, 1) + kPage - 1) / kPage * kPage;
}

/// An object as a caller names it.
struct Object {
  std::string ns;
  std::string token;
  std::string id;
  operator BmSecContext() const { return {id.c_str(), ns.c_str(), token.c_str()}; }
};

/// Knows each object of both nodes. Most calls that it chooses are right, each other one is wrong in one way.
class PoolModel {
 protected:
  struct Space {
    std::string token;
    std::map<std::string, std::string> objects;  // contents by id
  };

  /// What a node says to this caller of a namespace.
  int Right(std::uint16_t node, const Object& caller) {
    const auto space = mModel[node].find(caller.ns);
    return space == mModel[node].end() ? -ENOENT : space->second.token == caller.token ? 0 : -EACCES;
  }
  /// What a node says to this caller of an object. \param bytes receives the contents.
  int Find(const Object& object, std::string*& bytes) {
    const std::uint16_t node = OwnerOf(object.id);
    if (const int refused = Right(node, object); refused != 0) {
      return refused;
    }
    auto& objects = mModel[node][object.ns].objects;
    const auto found = objects.find(object.id);
    bytes = found == objects.end() ? nullptr : &found->second;
    return bytes == nullptr ? -ENOENT : 0;
  }
  std::uint64_t Used(std::uint16_t node) {
    std::uint64_t used = 0;
    for (const auto& [name, space] : mModel[node]) {
      for (const auto& [id, bytes] : space.objects) {
        used += Pages(bytes.size());
      }
    }
    return used;
  }
  /// \param less what is given back for it.
  bool HasRoom(std::uint16_t node, std::uint64_t size, std::uint64_t less = 0) {
    return size <= kCapacity && Used(node) - less + Pages(size) <= kCapacity;
  }
  static bool Fits(std::uint64_t size, std::uint64_t offset, std::uint64_t length) {
    return offset <= size && length <= size - offset;
  }

  std::uint64_t Pick(std::uint64_t count) { return mSteps->Wide(count); }
  std::uint16_t AnyNode() { return static_cast<std::uint16_t>(1 + Pick(2)); }
  std::uint64_t Number(std::uint64_t size) {
    const std::uint64_t numbers[] = {0, 1, size - 1, size, size + 1, Pick(size + 1), 1ULL << 63U, ~0ULL};
    return numbers[Pick(std::size(numbers))];
  }
  std::uint64_t Size() {
    const std::uint64_t sizes[] = {0,      1,         100,     4095,    4096,     4097,
                                   400000, 1U << 20U, 4000000, 5000000, 9U << 20U};
    return sizes[std::min(Pick(std::size(sizes)), Pick(std::size(sizes)))];
  }
  /// A range that most often lies within `size` bytes.
  void Range(std::uint64_t size, std::uint64_t& offset, std::uint64_t& length) {
    offset = Pick(size + 1);
    length = Pick(size - offset + 1);
    if (Pick(3) == 0) {
      offset = Number(size);
      length = Number(size);
    }
  }
  Object Good(const std::string& ns) {
    std::vector<Object> all;
    for (const auto& [node, spaces] : mModel) {
      for (const auto& [name, space] : spaces) {
        for (const auto& [id, bytes] : space.objects) {
          if (ns.empty() || ns == name) {
            all.push_back({name, space.token, id});
          }
        }
      }
    }
    return all.empty() ? Object{"a", "token-a", MakeObjectId(AnyNode())} : all[Pick(all.size())];
  }
  /// Now and then something is not as it should be.
  Object Any() {
    Object object = Good("");
    const std::string other = object.ns == "a" ? "b" : "a";
    const Object wrong[] = {{object.ns, "other", object.id},
                            {object.ns, "", object.id},
                            {object.ns, object.token + " ", object.id},
                            {object.ns, object.token.substr(0, 3), object.id},
                            {"none", object.token, object.id},
                            {"../a", object.token, object.id},
                            {other, "token-" + other, object.id},
                            {object.ns, object.token, MakeObjectId(AnyNode())},
                            {object.ns, "other", MakeObjectId(AnyNode())}};
    return Pick(4) == 0 ? wrong[Pick(std::size(wrong))] : object;
  }

  std::unique_ptr<test::RandomSteps> mSteps;
  std::map<std::uint16_t, std::map<std::string, Space>> mModel;  // by node and name
};

}  // namespace vyn::fabric
