#include "common/util/input_check.h"

#include "common/log/logging.h"

#include <array>
#include <cstring>
#include <string_view>

namespace vyn::common {

namespace {

constexpr std::size_t kMaxLength = 1024;

// The classes of a byte, as bits.
constexpr unsigned char kPlain = 1;
constexpr unsigned char kSeparator = 2;
constexpr unsigned char kOther = 4;

constexpr std::array<unsigned char, 256> MakeClasses() {
  std::array<unsigned char, 256> classes{};
  classes.fill(kOther);
  for (int c = 'a'; c <= 'z'; ++c) {
    classes[static_cast<std::size_t>(c)] = kPlain;
  }
  for (int c = 'A'; c <= 'Z'; ++c) {
    classes[static_cast<std::size_t>(c)] = kPlain;
  }
  for (int c = '0'; c <= '9'; ++c) {
    classes[static_cast<std::size_t>(c)] = kPlain;
  }
  classes['_'] = kPlain;
  classes['-'] = kPlain;
  classes[';'] = kSeparator;
  classes['.'] = kSeparator;
  return classes;
}

constexpr auto kClasses = MakeClasses();

/// Returns: the text of `input`, of which at most kMaxLength + 1 characters are read: enough to see that it
/// is too long.
std::string_view View(const char* input) { return {input, strnlen(input, kMaxLength + 1)}; }

unsigned int Match(std::string_view input, bool withSeparators) {
  if (input.empty() || input.size() > kMaxLength) {
    return VYN_ERR_GENERIC;
  }
  const unsigned int allowed = withSeparators ? kPlain | kSeparator : kPlain;
  // The loop does not stop at the first bad character: refusals are rare, and so it needs no branch.
  unsigned int seen = 0;
#pragma GCC unroll 8
  for (const char c : input) {
    seen |= kClasses[static_cast<unsigned char>(c)];
  }
  return (seen & ~allowed) == 0 ? VYN_OK : VYN_ERR_GENERIC;
}

/// \param whole the text for the error message.
unsigned int CheckIdentifier(std::string_view input, const char* whole, bool allowEmpty,
                             bool withSeparators) {
  if (input.empty()) {
    return allowEmpty ? VYN_OK : VYN_FAIL(VYN_ERR_GENERIC, "Invalid input params whose length is 0");
  }
  if (Failed(Match(input, withSeparators))) {
    return VYN_FAIL(
        VYN_ERR_GENERIC,
        "The length of input should be less than 1024, and it should only contain uppercase and lowercase "
        "letters, numbers, underscores and horizontal lines. input is : "
            << whole);
  }
  return VYN_OK;
}

unsigned int CheckNormalLength(std::size_t length) {
  if (length == 0 || length > kMaxLength) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Invalid input params which is nullptr or length is 0");
  }
  return VYN_OK;
}

}  // namespace

unsigned int InputRegularMatching(const char* input, bool withSeparators) {
  if (input == nullptr) {
    VYN_LOG_ERROR("Invalid params of context");
    return VYN_ERR_GENERIC;
  }
  return Match(View(input), withSeparators);
}

unsigned int InputRegularMatching(const std::string& input, bool withSeparators) {
  return Match(input, withSeparators);
}

unsigned int CheckInputWithCharPtr(const char* input, bool allowEmpty, bool withSeparators) {
  VYN_CHECK_POINTER(input);
  return CheckIdentifier(View(input), input, allowEmpty, withSeparators);
}

unsigned int CheckInputWithCharPtr(const std::string& input, bool allowEmpty, bool withSeparators) {
  return CheckIdentifier(input, input.c_str(), allowEmpty, withSeparators);
}

unsigned int CheckToken(const char* token) {
  VYN_CHECK_POINTER(token);
  return CheckIdentifier(View(token), "***", true, false);
}

unsigned int CheckInputWithNormalLength(const char* input) {
  return CheckNormalLength(input == nullptr ? 0 : View(input).size());
}

unsigned int CheckInputWithNormalLength(const std::string& input) { return CheckNormalLength(input.size()); }

unsigned int CheckInputWithCharPtrLength(const char* input, unsigned long length) {
  if (input == nullptr) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Invalid input params is nullptr");
  }
  const std::size_t actual = std::strlen(input);
  if (actual != length) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Invalid input param " << input << " with length " << actual
                                                            << " whose length is not equal to " << length);
  }
  return VYN_OK;
}

}  // namespace vyn::common
