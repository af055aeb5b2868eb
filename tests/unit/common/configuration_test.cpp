// The configuration: every rule of the catalogue through the store, the texts of values, files, the page and
// the sample.

#include "common/config/configuration.h"

#include "common/config/configuration_catalogue.h"
#include "common/config/kv_parser.h"
#include "support/process/in_child.h"
#include "support/random_steps.h"
#include "support/temp_dir.h"
#include "support/test.h"

#include <bit>

namespace vyn::common {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using Kind = CatalogueRule::Kind;
using Texts = std::vector<std::string>;
using Pair = std::pair<std::string, std::string>;

const std::string kPort = "vyn.tessel.rpc.shuffle_server.port";
const std::string kUrl = "vyn.zookeeper.server.url";

std::vector<CatalogueKey> Keys() {
  std::vector<CatalogueKey> keys;
  for (const CatalogueGroup* group : catalogue::kGroups) {
    keys.insert(keys.end(), group->keys.begin(), group->keys.end());
  }
  return keys;
}

/// A store in which every rule holds.
Ref<Configuration> ValidStore() {
  Ref<Configuration> store(new Configuration);
  for (const CatalogueKey& row : Keys()) {
    if (row.rule.kind == Kind::kNotEmpty) {
      store->Set(row.key, "x");
    }
  }
  return store;
}

bool Take(const Ref<Configuration>& store, const std::string& key, const std::string& value) {
  std::string complaint;
  const bool taken = store->SetFromText(key, value, complaint);
  EXPECT_EQ(complaint.empty(), taken);
  return taken;
}

/// Texts at the edges of a rule, by whether it takes them.
std::map<std::string, bool> EdgesOf(const CatalogueRule& rule) {
  const std::string start = std::to_string(rule.start);
  const std::string end = std::to_string(rule.end);
  const std::string below = std::to_string(rule.start - 1);
  const bool endless = rule.end == INT_MAX || rule.end == LONG_MAX;
  const std::string above = endless ? below : std::to_string(rule.end + 1);
  switch (rule.kind) {
    case Kind::kNotEmpty:
      return {{" ", true}, {"", false}};
    case Kind::kIntRange:
    case Kind::kLongRange:
      return {{start, true}, {end, true}, {below, false}, {above, false}};
    case Kind::kStrRange:
      return {{start + "-" + end, true},    {end + "-" + start, true},  {start, false},
              {start + "-" + above, false}, {below + "-" + end, false}, {"", rule.allowEmpty}};
    default:
      return {};
  }
}

TEST(ConfigurationTest, EveryKeyHasItsDefaultTypeAndRule) {
  const Ref<Configuration> fresh(new Configuration);
  const Ref<Configuration> store = ValidStore();
  for (const CatalogueKey& row : Keys()) {
    SCOPED_TRACE(row.key);
    const std::string type = catalogue::TypeText(row);
    const std::string value = type == "int"    ? std::to_string(fresh->GetInt(row.key, -99))
                              : type == "long" ? std::to_string(fresh->GetLong(row.key, -99))
                              : type == "bool" ? (fresh->GetBool(row.key, false) ? "true" : "false")
                                               : fresh->GetString(row.key, "absent");
    EXPECT_EQ(value, catalogue::DefaultText(row));
    EXPECT_EQ(Take(fresh, row.key, "1.5"), type != "int" && type != "long");
    for (const auto& [text, good] : EdgesOf(row.rule)) {
      ASSERT_TRUE(Take(store, row.key, text));
      for (unsigned int feature = 0; feature < 16; ++feature) {
        // A rule that belongs to several features complains once for each.
        const int times = good ? 0 : row.flags == 0 ? 1 : std::popcount(row.flags & feature);
        EXPECT_THAT(store->Validate(feature & kValidateAuthentication, feature & kValidateTls,
                                    feature & kValidateAuthorization, feature & kValidateZookeeperSecurity),
                    testing::AllOf(testing::SizeIs(times),
                                   testing::Each(HasSubstr(std::string("<") + row.key + ">"))))
            << text;
      }
    }
    Take(store, row.key, row.rule.kind == Kind::kNotEmpty ? "x" : catalogue::DefaultText(row));
  }
}

TEST(ConfigurationTest, EnumerationListAndRangeRulesAcceptTheirValuesOnly) {
  const std::string ports = "vyn.tessel.rpc.transport.tcp.port.range";
  const std::string word = "vyn.tessel.rpc.transport.protocol";
  const std::string list = "vyn.tessel.rpc.shuffle_meta.worker.thread.group";
  const std::tuple<std::string, bool, Texts> rows[] = {
      {ports, true, {"99999999999999999999-50000"}},
      {ports, false, {"-40000", "40000--1", "40000-00", "50000-x"}},
      {word, true, {"rc", "rc_v", "tcp"}},
      {word, false, {"", "r", "TCP", "rc||rc_v", "||"}},
      {list, true, {"1,16,3", "1,3,3,"}},
      {list, false, {"", "1,3", "1,3,3,3", "0,1,1", "1,17,3", "1,,3", "1,x,3", "1,99999999999999999999,3"}}};
  for (const auto& [key, valid, texts] : rows) {
    for (const std::string& text : texts) {
      const Ref<Configuration> store = ValidStore();
      EXPECT_TRUE(Take(store, key, text));
      EXPECT_EQ(store->Validate(false, false, false, false).empty(), valid) << key << "=" << text;
    }
  }
}

TEST(ConfigurationTest, TheStoreParsesValuesFromText) {
  const Ref<Configuration> store(new Configuration);
  store->AddIntConf({"int", 7}, VIntRange::Create("a range without room", 5, 5), 0);
  store->AddLongConf({"long", 8}, nullptr, 0);
  store->AddFltConf({"float", 1.5F}, nullptr, 0);
  store->AddBoolConf({"bool", false});
  store->AddStrConf({"text", ""}, nullptr, 0);
  const std::string longest = std::to_string(LONG_MAX);
  const std::tuple<std::string, std::string, bool, std::string> rows[] = {
      {"int", "-12", true, "-12"},
      {"int", "4294970187", true, "2891"},  // its low 32 bits
      {"int", "12x", false, "2891"},
      {"long", " +5", true, "5"},
      {"long", longest, true, longest},
      {"long", longest + "0", false, longest},
      {"long", "0", true, "0"},
      {"long", "00", false, "0"},
      {"float", "-2.5e3", true, "-2500"},
      {"float", "0", false, "0"},
      {"float", "nan", true, "nan"},
      {"float", "1e99", false, "inf"},
      {"bool", "  true", true, "1"},
      {"bool", "True", true, "0"},
      {"text", "\xff\xfe\t", true, "\xff\xfe\t"},
      {"none", "1", false, ""}};
  for (const auto& [key, text, taken, shown] : rows) {
    EXPECT_EQ(Take(store, key, text), taken) << key << " " << text;
    const std::string line = "] " + key + " = " + shown + "\n";
    EXPECT_EQ(store->DumpStr().find(line) != std::string::npos, key != "none") << line;
  }
  EXPECT_EQ(std::isinf(store->GetFloat("float", 0)), std::isinf(store->GetFloat("none", INFINITY)));
  EXPECT_THAT(store->Validate(false, false, false, false),
              testing::Contains(HasSubstr("a range without room")));
  testing::internal::CaptureStdout();
  store->Dump();
  const std::regex values(" = [^\n]*");
  EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStdout(), values, ""),
            std::regex_replace(store->DumpStr(), values, ""));
}

// What a line is, by one regular expression; a file is its pairs, each key in its first place with its last
// value.
TEST(ConfigurationFileTest, TheParserReadsRandomLinesAsTheRegularExpressionDoes) {
  const test::TempDir dir;
  const std::regex line(R"( *([^ #=](?:[^=]*[^ =])?) *= *((?:[\s\S]*[^ ])?) *)");
  const Texts pieces{" ",    " ", "=", "=", "#", "a", "b", "key", "\t", "\r", std::string(1, '\0'),
                     "\xff", "$", "{"};
  for (const unsigned int seed : test::Seeds(100)) {
    SCOPED_TRACE("VYN_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    std::string text;
    std::vector<Pair> expected;
    for (auto lines = random() % 100; lines > 0; --lines) {
      std::string one;
      for (auto count = random() % 10; count > 0; --count) {
        one += pieces[random() % pieces.size()];
      }
      text += one + (lines > 1 ? "\n" : "");
      std::smatch parts;
      if (!std::regex_match(one, parts, line)) {
        continue;
      }
      const auto known = std::ranges::find(expected, parts[1].str(), &Pair::first);
      if (known == expected.end()) {
        expected.emplace_back(parts[1], parts[2]);
      } else {
        known->second = parts[2];
      }
    }
    KVParser parser;
    ASSERT_TRUE(parser.FromFile(dir.Write("f", text)));
    std::vector<Pair> found(parser.Size());
    for (unsigned int i = 0; i < found.size(); ++i) {
      parser.GetI(i, found[i].first, found[i].second);
    }
    EXPECT_EQ(found, expected) << testing::PrintToString(text);
  }
  KVParser parser;
  std::string value;
  EXPECT_TRUE(parser.SetItem("a", "1") && parser.SetItem("a", "2") && parser.GetItem("a", value));
  EXPECT_FALSE(parser.GetItem("b", value));
  testing::internal::CaptureStdout();
  parser.Dump();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "a = " + value + "\n");
  EXPECT_EQ(value, "2");
}

TEST(ConfigurationFileTest, LoadingAnUnreadableOrInvalidFileReturnsNoStore) {
  const test::TempDir dir;
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  Texts paths{"", dir / "missing", std::string(4096, '/'), dir.Path(), dir / "pipe", "/dev/zero"};
  for (const std::string& line :
       {"VYN" + kUrl.substr(3) + "=x", kPort + "=", kPort + "=38x1", kPort + "=3891\r"}) {
    paths.push_back(dir.Write("bad" + std::to_string(paths.size()), kPort + " = 4000\n" + line + "\n"));
  }
  for (const std::string& path : paths) {
    EXPECT_TRUE(Configuration::GetInstance(path) == nullptr) << path;
  }
}

TEST(ConfigurationFileTest, TheFirstGoodLoadIsKeptAndAMergeSkipsBadPairs) {
  const test::TempDir dir;
  test::InChild([&] {  // the store is loaded once a process
    const Ref<Configuration> any(new Configuration);
    EXPECT_TRUE(any->MergeConfig(dir.Write("first", kPort + "=4000\n" + kUrl + "=one\r\n")));
    const auto store = Configuration::GetInstance(dir.Write("other", kPort + "=5000\n"));
    EXPECT_EQ(store->GetString(kUrl, ""), "one\r");
    EXPECT_FALSE(any->MergeConfig(dir / "missing"));
    EXPECT_TRUE(any->MergeConfig(dir.Write("second", "vyn.unknown=1\n" + kPort + "=x\n" + kUrl + "=two\n")));
    EXPECT_EQ(store->GetInt(kPort, 0), 4000);
    EXPECT_EQ(store->GetString(kUrl, ""), "two");
  });
}

TEST(ConfigurationDocumentsTest, TheConfigurationPageEqualsTheCatalogue) {
  const std::string page = test::ReadFile(VYN_SOURCE_DIR "/docs/configuration.md");
  const auto begin = page.find("## " + std::string(catalogue::kGroups.front()->title));
  ASSERT_NE(begin, std::string::npos);
  EXPECT_EQ(page.substr(begin) + "\n", catalogue::MarkdownTables())
      << "replace the tables of docs/configuration.md by the output of: vynconf keys";
}

TEST(ConfigurationDocumentsTest, TheSampleFileHasEveryKeyWithItsDefaultOrAValidValue) {
  std::map<std::string, std::string> defaults;
  for (const CatalogueKey& row : Keys()) {
    defaults[row.key] = catalogue::DefaultText(row);
  }
  const Ref<Configuration> store(new Configuration);
  std::istringstream sample(test::ReadFile(VYN_SOURCE_DIR "/conf/vyn.conf"));
  for (std::string line; std::getline(sample, line);) {
    const bool isDefault = line.starts_with("#vyn.");
    std::string key;
    std::string value;
    if (KVParser::ParseLine(line.substr(isDefault ? 1 : 0), key, value) == KVLine::kPair) {
      EXPECT_TRUE(isDefault ? line == "#" + key + "=" + defaults[key] : Take(store, key, value)) << line;
      EXPECT_EQ(defaults.erase(key), 1U) << key << " is no key or stands twice";
    }
  }
  EXPECT_THAT(defaults, IsEmpty()) << "not in the sample";
  EXPECT_THAT(store->Validate(false, false, false, false), IsEmpty());
}

}  // namespace
}  // namespace vyn::common
