#include "common/config/configuration.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <thread>

namespace vyn::common {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

/// A store with one key of each type beside the catalogue.
Ref<Configuration> Store() {
  Ref<Configuration> store(new Configuration);
  store->AddIntConf({"t.int", 7}, nullptr, 0);
  store->AddLongConf({"t.long", 8}, nullptr, 0);
  store->AddFltConf({"t.float", 1.5F}, nullptr, 0);
  store->AddBoolConf({"t.bool", true});
  store->AddStrConf({"t.text", "old"}, nullptr, 0);
  return store;
}

/// Sets from text and returns what was printed.
std::string Convert(const Ref<Configuration>& store, const std::string& key, const std::string& value,
                    bool expected) {
  CaptureStdout();
  EXPECT_EQ(store->SetWithTypeAutoConvert(key, value), expected) << key << "=" << value;
  return GetCapturedStdout();
}

TEST(ConfigurationTest, IntegersFromText) {
  const auto store = Store();
  const struct {
    const char* text;
    bool taken;
    int intValue;
    long longValue;
  } cases[] = {
      {"0", true, 0, 0},
      {"-12", true, -12, -12},
      {" 5", true, 5, 5},
      {"+5", true, 5, 5},
      {"4294967296", true, 0, 4294967296},
      {"4294970187", true, 2891, 4294970187},
      {"9223372036854775807", true, -1, LONG_MAX},
      {"", false, 7, 0},
      {"00", false, 7, 0},
      {"-0", false, 7, 0},
      {"12x", false, 7, 12},
      {"0x10", false, 7, 0},
      {"1.5", false, 7, 1},
      {"9223372036854775808", false, 7, LONG_MAX},
  };
  for (const auto& c : cases) {
    store->Set("t.int", 7);
    store->Set("t.long", 8L);
    const std::string tail = ">, it was empty or in wrong type, it should be a ";
    EXPECT_EQ(Convert(store, "t.int", c.text, c.taken), c.taken ? "" : "<t.int" + tail + "int number.\n");
    EXPECT_EQ(Convert(store, "t.long", c.text, c.taken), c.taken ? "" : "<t.long" + tail + "long number.\n");
    EXPECT_EQ(store->GetInt("t.int", -99), c.intValue) << c.text;
    EXPECT_EQ(store->GetLong("t.long", -99), c.longValue) << c.text;
  }
}

TEST(ConfigurationTest, FloatsBoolsAndTextsFromText) {
  const auto store = Store();
  const std::string wrong = "<t.float>, it was empty or in wrong type, it should be a float number.\n";
  const struct {
    const char* text;
    bool taken;
    float value;
  } floats[] = {{"0.0", true, 0},      {"2.5", true, 2.5F},    {"-1e3", true, -1000},
                {"0", false, 0},       {"0.00", false, 0},     {"", false, 0},
                {"1.5x", false, 1.5F}, {"1e-7", false, 1e-7F}, {"1e99", false, HUGE_VALF}};
  for (const auto& c : floats) {
    EXPECT_EQ(Convert(store, "t.float", c.text, c.taken), c.taken ? "" : wrong);
    EXPECT_FLOAT_EQ(store->GetFloat("t.float", -99), c.value) << c.text;
  }
  const std::pair<const char*, bool> bools[] = {{"true", true},   {"  true", true}, {"trueish", true},
                                                {"True", false},  {"1", false},     {"", false},
                                                {"false", false}, {"tru", false}};
  for (const auto& [text, value] : bools) {
    EXPECT_EQ(Convert(store, "t.bool", text, true), "");
    EXPECT_EQ(store->GetBool("t.bool", !value), value) << text;
  }
  EXPECT_EQ(Convert(store, "t.text", "\xff\xfe\t", true), "");
  EXPECT_EQ(store->GetString("t.text", ""), "\xff\xfe\t");
}

TEST(ConfigurationTest, UndeclaredKeysAndOtherTypes) {
  const auto store = Store();
  EXPECT_EQ(Convert(store, "t.none", "1", false), "<t.none>, it was not validate configure type.\n");
  store->Set("t.none", 3);
  EXPECT_EQ(store->GetInt("t.none", 0), 3);
  EXPECT_EQ(Convert(store, "t.none", "1", false), "<t.none>, it was not validate configure type.\n");
  EXPECT_EQ(store->GetInt("t.long", -5), -5);
  EXPECT_EQ(store->GetLong("t.int", -5), -5);
  EXPECT_EQ(store->GetString("t.int", "other"), "other");
  const std::string fallback = "fallback";
  EXPECT_EQ(&store->GetString("t.unknown", fallback), &fallback);
  store->Set("t.text", "literal");
  EXPECT_EQ(store->GetString("t.text", ""), "literal");
  store->AddIntConf({"t.int", 11}, nullptr, 0);
  EXPECT_EQ(store->GetInt("t.int", 0), 11);
}

TEST(ConfigurationTest, ValidateRunsTheRulesOfTheFeaturesThatAreOn) {
  // Away from the catalogue: the values of its own rules are made valid first.
  const auto store = Store();
  for (const char* key :
       {"vyn.zookeeper.server.url", "vyn.tessel.meta.node_lists", "vyn.tessel.server.swap.path"}) {
    store->Set(key, "x");
  }
  EXPECT_EQ(store->Validate(false, false, false, false).size(), 0U);
  const auto notEmpty = [&](const std::string& key, unsigned int flags) {
    store->AddStrConf({key, ""}, VStrNotNull::Create(key), flags);
    return "Invalid value for <" + key + ">, it should not be empty";
  };
  const std::string always = notEmpty("a.always", 0);
  const std::string zookeeper = notEmpty("a.zookeeper", 8);
  const auto only = [](std::vector<std::string> all, const std::string& part) {
    std::erase_if(all, [&](const std::string& text) { return text.find(part) == std::string::npos; });
    return all;
  };
  using Texts = std::vector<std::string>;
  EXPECT_EQ(store->Validate(false, false, false, false), Texts{always});
  EXPECT_EQ(only(store->Validate(false, false, false, true), "<a."), (Texts{zookeeper, always}));

  // A key of several features is told once for each, in the order authentication, TLS, authorization.
  const std::string path = "Invalid value for <vyn.tessel.rpc.openssl.path>, it should not be empty";
  const auto three = store->Validate(true, true, true, false);
  EXPECT_EQ(only(three, "openssl.path"), (Texts{path, path, path}));
  EXPECT_EQ(three.back(), always);
  EXPECT_EQ(only(store->Validate(false, true, false, false), "openssl.path"), Texts{path});

  // A rule that is no rule, a missing value, and a type whose rule has no say.
  store->AddIntConf({"a.bad", 1}, VIntRange::Create("a.bad", 2, 2), 0);
  store->SetValidator("a.undeclared", VStrNotNull::Create("a.undeclared"), 0);
  store->AddBoolConf({"a.bool", false});
  store->SetValidator("a.bool", VStrNotNull::Create("a.bool"), 0);
  const auto odd = only(store->Validate(false, false, false, false), "<a.");
  EXPECT_EQ(odd, (Texts{always,
                        "Failed to initialize validator for <a.bad>, because end should be bigger than start",
                        "Failed to find <a.undeclared> in type map, which should not happen."}));
  ConfValueType types[] = {CONF_STRING, CONF_FLOAT, CONF_INT, CONF_LONG, CONF_BOOL};
  Texts missing;
  for (ConfValueType& type : types) {
    store->ValidateOneType("gone", VStrNotNull::Create("gone"), missing, type);
  }
  store->ValidateOneValueMap(missing, {{"none", nullptr}});
  EXPECT_EQ(missing, (Texts{"Failed to find <gone> in string value map, which should not happen.",
                            "Failed to find <gone> in float value map, which should not happen.",
                            "Failed to find <gone> in int value map, which should not happen.",
                            "Failed to find <gone> in long value map, which should not happen.",
                            "The validator of <none> is null, skip."}));
}

TEST(ConfigurationTest, BothDumpsShowEveryTypeInOrder) {
  const auto store = Store();
  CaptureStdout();
  store->Dump();
  const std::string printed = GetCapturedStdout();
  const std::string text = store->DumpStr();
  const auto inOrder = [](const std::string& whole, std::initializer_list<const char*> parts) {
    std::size_t position = 0;
    for (const char* part : parts) {
      position = whole.find(part, position);
      ASSERT_NE(position, std::string::npos) << part;
    }
  };
  inOrder(printed, {"Configuration Dump:\n", "i] t.int = 7\n", "f] t.float = 1.500000\n", "s] t.text = old\n",
                    "b] t.bool = true\n", "l] t.long = 8\n"});
  inOrder(text, {"Configuration Dump:\n", "i] t.int = 7\n", "f] t.float = 1.5\n", "s] t.text = old\n",
                 "b] t.bool = 1\n", "l] t.long = 8\n"});
}

TEST(ConfigurationTest, ReadersAndWritersTogether) {
  const auto store = Store();
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      store->Set("t.int", i);
      store->SetWithTypeAutoConvert("t.long", std::to_string(i + 1));
    }
  });
  int last = 0;
  for (int i = 0; i < 2000; ++i) {
    const int now = store->GetInt("t.int", -1);
    EXPECT_TRUE(now >= last || last == 7);
    last = now;
    store->DumpStr();
  }
  writer.join();
  EXPECT_EQ(store->GetLong("t.long", 0), 2000);
}

}  // namespace
}  // namespace vyn::common
