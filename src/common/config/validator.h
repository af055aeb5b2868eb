#pragma once

// The rules of configuration keys.
//
// A caller first calls Initialize, which checks the rule's own bounds, and then the Validate for the type of
// the value. After a failure ErrorMessage() says why. A Validate that a rule does not override accepts every
// value.
//
// Not thread-safe: a check that fails writes mErrorMessage. Configuration::Validate runs on the thread that
// starts the process up.

#include "common/util/ref.h"

#include <cstdint>
#include <string>

namespace vyn::common {

class Validator : public Referable {
 public:
  ~Validator() override = default;

  /// Whether the rule's own bounds are valid. Call it before Validate.
  virtual bool Initialize() = 0;
  virtual bool Validate(const std::string& value);
  virtual bool Validate(int value);
  virtual bool Validate(float value);
  virtual bool Validate(long value);

  /// The text of the last failure; empty before the first.
  const std::string& ErrorMessage() const { return mErrorMessage; }

 protected:
  explicit Validator(std::string name);

  /// Sets mErrorMessage to "Invalid value for <NAME>, REASON". Returns: false, so that a check can end with
  /// `return Refuse(...)`.
  bool Refuse(const std::string& reason);
  bool RefuseOutside(long start, long end);
  /// Unless `valid`, sets mErrorMessage to "Failed to initialize validator for <NAME>, because REASON".
  /// Returns: `valid`.
  bool CheckDefinition(bool valid, const std::string& reason);
  bool CheckRangeDefinition(bool valid);

  /// The key that the rule belongs to.
  std::string mName;
  std::string mErrorMessage;
};

/// A text that must not be empty.
class VStrNotNull : public Validator {
 public:
  explicit VStrNotNull(std::string name);
  ~VStrNotNull() override = default;
  /// Returns: the rule, or an empty Ref without memory. So do the other Create functions.
  static Ref<Validator> Create(const std::string& name);

  bool Initialize() override;
  using Validator::Validate;
  bool Validate(const std::string& value) override;
};

/// A text that is a range of two numbers, such as "60000-61000", within bounds. The first number may be the
/// larger one.
class VStrRange : public Validator {
 public:
  VStrRange(std::string name, std::int32_t start, std::int32_t end, bool allowEmpty);
  ~VStrRange() override = default;
  static Ref<Validator> Create(const std::string& name, std::int32_t start, std::int32_t end,
                               bool allowEmpty);

  bool Initialize() override;
  using Validator::Validate;
  bool Validate(const std::string& value) override;

 private:
  std::int32_t mStart;
  std::int32_t mEnd;
  bool mAllowEmpty;
};

/// A text that is one of several words.
class VStrEnum : public Validator {
 public:
  /// \param enumText the words, separated by "||".
  VStrEnum(std::string name, std::string enumText);
  ~VStrEnum() override = default;

  bool Initialize() override;
  using Validator::Validate;
  bool Validate(const std::string& value) override;

 private:
  std::string mEnum;
};

/// A text that is a comma-separated list of a fixed number of integers within bounds, such as "1,3,3".
class VStrArray : public Validator {
 public:
  VStrArray(std::string name, std::int32_t start, std::int32_t end, std::uint32_t itemCount, bool allowEmpty);
  ~VStrArray() override = default;

  bool Initialize() override;
  using Validator::Validate;
  bool Validate(const std::string& value) override;

 private:
  std::int32_t mStart;
  std::int32_t mEnd;
  std::uint32_t mItemCount;
  bool mAllowEmpty;
};

/// A number within inclusive bounds. The upper bound must be larger than the lower one; for a long it may be
/// equal.
template <typename T>
class VNumberRange : public Validator {
 public:
  VNumberRange(std::string name, T start, T end);
  ~VNumberRange() override = default;
  static Ref<Validator> Create(const std::string& name, const T& start, const T& end);

  bool Initialize() override;
  using Validator::Validate;
  bool Validate(T value) override;

 private:
  T mStart;
  T mEnd;
};

using VIntRange = VNumberRange<int>;
using VLongRange = VNumberRange<long>;

}  // namespace vyn::common
