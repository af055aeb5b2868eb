#include "common/config/validator.h"

#include "common/util/text.h"

#include <limits>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace vyn::common {

namespace {

std::string RangeText(long start, long end) { return std::to_string(start) + "-" + std::to_string(end); }

/// Reads one bound of a range text. Ignores text after the number.
bool ReadSide(const std::string& text, long& value) {
  value = 0;
  static_cast<void>(VynStol(text, value));
  return value != -1 && (value != 0 || text == "0");
}

}  // namespace

Validator::Validator(std::string name) : mName(std::move(name)) {}

bool Validator::Validate(const std::string&) { return true; }
bool Validator::Validate(int) { return true; }
bool Validator::Validate(float) { return true; }
bool Validator::Validate(long) { return true; }

bool Validator::Refuse(const std::string& reason) {
  mErrorMessage = "Invalid value for <" + mName + ">, " + reason;
  return false;
}

bool Validator::RefuseOutside(long start, long end) {
  return Refuse("it should be between " + RangeText(start, end));
}

bool Validator::CheckDefinition(bool valid, const std::string& reason) {
  if (!valid) {
    mErrorMessage = "Failed to initialize validator for <" + mName + ">, because " + reason;
  }
  return valid;
}

bool Validator::CheckRangeDefinition(bool valid) {
  return CheckDefinition(valid, "end should be bigger than start");
}

VStrNotNull::VStrNotNull(std::string name) : Validator(std::move(name)) {}

Ref<Validator> VStrNotNull::Create(const std::string& name) { return new (std::nothrow) VStrNotNull(name); }

bool VStrNotNull::Initialize() { return true; }

bool VStrNotNull::Validate(const std::string& value) {
  return !value.empty() || Refuse("it should not be empty");
}

VStrRange::VStrRange(std::string name, std::int32_t start, std::int32_t end, bool allowEmpty)
    : Validator(std::move(name)), mStart(start), mEnd(end), mAllowEmpty(allowEmpty) {}

Ref<Validator> VStrRange::Create(const std::string& name, std::int32_t start, std::int32_t end,
                                 bool allowEmpty) {
  return new (std::nothrow) VStrRange(name, start, end, allowEmpty);
}

bool VStrRange::Initialize() { return CheckRangeDefinition(mEnd > mStart); }

bool VStrRange::Validate(const std::string& value) {
  if (mAllowEmpty && value.empty()) {
    return true;
  }
  const auto dash = value.find('-');
  long low = 0;
  long high = 0;
  if (dash == std::string::npos || dash == 0 || dash + 1 == value.size() ||
      !ReadSide(value.substr(0, dash), low) || !ReadSide(value.substr(dash + 1), high)) {
    return Refuse("it should be range like 1000-2000");
  }
  return (low >= mStart && high <= mEnd) || RefuseOutside(mStart, mEnd);
}

VStrEnum::VStrEnum(std::string name, std::string enumText)
    : Validator(std::move(name)), mEnum(std::move(enumText)) {}

bool VStrEnum::Initialize() {
  std::set<std::string> words;
  SplitStr(mEnum, "||", words);
  return CheckDefinition(!words.empty(), "enum string is not correct");
}

bool VStrEnum::Validate(const std::string& value) {
  const std::string bar = "||";
  if (value.find(bar) == std::string::npos &&
      (bar + mEnum + bar).find(bar + value + bar) != std::string::npos) {
    return true;
  }
  return Refuse("it should be one of " + mEnum);
}

VStrArray::VStrArray(std::string name, std::int32_t start, std::int32_t end, std::uint32_t itemCount,
                     bool allowEmpty)
    : Validator(std::move(name)), mStart(start), mEnd(end), mItemCount(itemCount), mAllowEmpty(allowEmpty) {}

bool VStrArray::Initialize() { return CheckRangeDefinition(mEnd > mStart); }

bool VStrArray::Validate(const std::string& value) {
  if (mAllowEmpty && value.empty()) {
    return true;
  }
  std::vector<std::string> items;
  SplitStr(value, ",", items);
  if (items.size() != mItemCount) {
    return Refuse("there should be " + std::to_string(mItemCount) + " items");
  }
  for (const std::string& item : items) {
    long number = 0;
    if (!VynStol(item, number)) {
      return Refuse("all items must be integer");
    }
    if (number < mStart || number > mEnd) {
      return RefuseOutside(mStart, mEnd);
    }
  }
  return true;
}

template <typename T>
VNumberRange<T>::VNumberRange(std::string name, T start, T end)
    : Validator(std::move(name)), mStart(start), mEnd(end) {}

template <typename T>
Ref<Validator> VNumberRange<T>::Create(const std::string& name, const T& start, const T& end) {
  return new (std::nothrow) VNumberRange(name, start, end);
}

template <typename T>
bool VNumberRange<T>::Initialize() {
  return CheckRangeDefinition(mEnd > mStart || (std::is_same_v<T, long> && mEnd == mStart));
}

template <typename T>
bool VNumberRange<T>::Validate(T value) {
  if (value >= mStart && value <= mEnd) {
    return true;
  }
  return mEnd == std::numeric_limits<T>::max() ? Refuse("it should be >= " + std::to_string(mStart))
                                               : RefuseOutside(mStart, mEnd);
}

template class VNumberRange<int>;
template class VNumberRange<long>;

}  // namespace vyn::common
