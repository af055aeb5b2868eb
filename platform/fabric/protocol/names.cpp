#include "platform/fabric/protocol/names.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace vyn::fabric {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
constexpr std::size_t kOwnerDigits = 4;
constexpr std::size_t kRandomStart = 1 + kOwnerDigits;

bool IsPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  });
}

}  // namespace

bool IsNamespaceName(std::string_view text) {
  return !text.empty() && text.size() <= kMaxNamespaceLength && IsPlain(text);
}

bool IsObjectId(std::string_view text) {
  if (text.size() != kIdLength || text[0] != 'b' || !IsPlain(text)) {
    return false;
  }
  const std::string_view owner = text.substr(1, kOwnerDigits);
  return std::all_of(owner.begin(), owner.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::uint16_t OwnerOf(std::string_view id) {
  std::uint16_t owner = 0;
  std::from_chars(id.data() + 1, id.data() + 1 + kOwnerDigits, owner, 16);
  return owner;
}

std::string MakeObjectId(std::uint16_t owner) {
  std::array<unsigned char, kIdLength - kRandomStart> random;
  if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
    return {};
  }
  char prefix[kRandomStart + 1];
  std::snprintf(prefix, sizeof(prefix), "b%04x", owner);
  std::string id(prefix);
  for (const unsigned char byte : random) {
    id += kAlphabet[byte % kAlphabet.size()];  // 64 characters: every one is equally likely
  }
  return id;
}

}  // namespace vyn::fabric
