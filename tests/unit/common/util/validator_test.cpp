#include "common/config/validator.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>

namespace vyn::common {
namespace {

const std::string kInvalid = "Invalid value for <k>, ";

/// Runs a rule: the complaint, or "" when the value passes.
template <typename T>
std::string Complaint(const Ref<Validator>& rule, const T& value) {
  EXPECT_TRUE(rule->Initialize()) << rule->ErrorMessage();
  const bool passed = rule->Validate(value);
  EXPECT_EQ(passed, rule->ErrorMessage().empty());
  return rule->ErrorMessage();
}

TEST(ValidatorTest, BoundsMustMakeSense) {
  const std::string range = "Failed to initialize validator for <k>, because end should be bigger than start";
  const struct {
    Ref<Validator> rule;
    std::string complaint;
  } cases[] = {
      {VIntRange::Create("k", 5, 5), range},
      {VIntRange::Create("k", 5, 6), ""},
      {VLongRange::Create("k", 5, 5), ""},
      {VLongRange::Create("k", 5, 4), range},
      {VStrRange::Create("k", 5, 5, true), range},
      {new VStrArray("k", 5, 5, 1, false), range},
      {new VStrEnum("k", ""), "Failed to initialize validator for <k>, because enum string is not correct"},
      {new VStrEnum("k", "a"), ""},
      {VStrNotNull::Create("k"), ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.rule->Initialize(), c.complaint.empty());
    EXPECT_EQ(c.rule->ErrorMessage(), c.complaint);
  }
}

TEST(ValidatorTest, Numbers) {
  EXPECT_EQ(Complaint(VIntRange::Create("k", -3, 7), -3), "");
  EXPECT_EQ(Complaint(VIntRange::Create("k", -3, 7), 7), "");
  EXPECT_EQ(Complaint(VIntRange::Create("k", -3, 7), 8), kInvalid + "it should be between -3-7");
  EXPECT_EQ(Complaint(VIntRange::Create("k", -3, 7), -4), kInvalid + "it should be between -3-7");
  EXPECT_EQ(Complaint(VIntRange::Create("k", 5, INT_MAX), 4), kInvalid + "it should be >= 5");
  EXPECT_EQ(Complaint(VIntRange::Create("k", 5, INT_MAX - 1), 4),
            kInvalid + "it should be between 5-2147483646");
  EXPECT_EQ(Complaint(VLongRange::Create("k", -1, LONG_MAX), -2L), kInvalid + "it should be >= -1");
  EXPECT_EQ(Complaint(VLongRange::Create("k", 0, INT_MAX), -1L),
            kInvalid + "it should be between 0-2147483647");
  EXPECT_EQ(Complaint(VLongRange::Create("k", 4, 4), 4L), "");
}

TEST(ValidatorTest, AValueOfAnotherTypePasses) {
  EXPECT_EQ(Complaint(VIntRange::Create("k", 1, 2), 99L), "");
  EXPECT_EQ(Complaint(VLongRange::Create("k", 1, 2), 99), "");
  EXPECT_EQ(Complaint(VLongRange::Create("k", 1, 2), 99.0F), "");
  EXPECT_EQ(Complaint(VIntRange::Create("k", 1, 2), std::string("x")), "");
}

TEST(ValidatorTest, Texts) {
  const std::string form = kInvalid + "it should be range like 1000-2000";
  const std::string outside = kInvalid + "it should be between 40000-61000";
  const std::string items = kInvalid + "there should be 3 items";
  const std::string integer = kInvalid + "all items must be integer";
  const std::string bounds = kInvalid + "it should be between 1-16";
  const std::string word = kInvalid + "it should be one of rc||rc_v||tcp";
  const auto port = [](bool allowEmpty) { return VStrRange::Create("k", 40000, 61000, allowEmpty); };
  const auto cpus = [] { return VStrRange::Create("k", 0, 256, false); };
  const auto one = [] { return Ref<Validator>(new VStrEnum("k", "rc||rc_v||tcp")); };
  const auto list = [](bool allowEmpty) { return Ref<Validator>(new VStrArray("k", 1, 16, 3, allowEmpty)); };
  const struct {
    Ref<Validator> rule;
    std::string value;
    std::string complaint;
  } cases[] = {
      {VStrNotNull::Create("k"), "", kInvalid + "it should not be empty"},
      {VStrNotNull::Create("k"), " ", ""},
      {port(true), "", ""},
      {port(false), "", form},
      {port(true), "50000", form},
      {port(false), "60000-61000", ""},
      {port(false), "61000-40000", ""},
      {port(false), "-40000", form},
      {port(false), "40000-", form},
      {port(false), "39999-50000", outside},
      {port(false), "40000-61001", outside},
      {port(false), "x-50000", form},
      {port(false), "40000--1", form},
      {port(false), "40000-00", form},
      {port(false), "40000-50000x", ""},  // what follows the number is not looked at
      {port(false), "99999999999999999999-50000", ""},
      {cpus(), "0-256", ""},
      {cpus(), "00-256", form},
      {one(), "rc", ""},
      {one(), "rc_v", ""},
      {one(), "tcp", ""},
      {one(), "r", word},
      {one(), "TCP", word},
      {one(), "", word},
      {one(), "rc||rc_v", word},
      {one(), "||", word},
      {list(false), "1,3,3", ""},
      {list(false), "16,1,16", ""},
      {list(false), "1,3", items},
      {list(false), "1,3,3,", ""},
      {list(false), "1,,3", integer},
      {list(false), "1,x,3", integer},
      {list(false), "1,3.5,3", integer},
      {list(false), "1,00,3", integer},
      {list(false), "1,99999999999999999999,3", integer},
      {list(false), std::string("1,2,3\0x", 7), integer},
      {list(false), "1,0,3", bounds},
      {list(false), "1,17,3", bounds},
      {list(false), "", items},
      {list(true), "", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Complaint(c.rule, c.value), c.complaint) << c.value;
  }
}

}  // namespace
}  // namespace vyn::common
