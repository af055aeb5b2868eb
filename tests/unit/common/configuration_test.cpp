// The configuration: every rule of the catalogue through the store, the texts of values, files, the page and
// the sample.

#include "common/config/configuration.h"

#include "common/config/configuration_catalogue.h"
#include "common/config/kv_parser.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "support/test.h"

#include <bit>

namespace vyn::common {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using Kind = CatalogueRule::Kind;
using Texts = std::vector<std::string>;

const std::string kSource = VYN_SOURCE_DIR;
const std::string kPort = "vyn.tessel.rpc.shuffle_server.port";
const std::string kUrl = "vyn.zookeeper.server.url";

/// Calls `take` with every key of the catalogue.
void ForEachKey(const std::function<void(const CatalogueKey&)>& take) {
  for (const CatalogueGroup* group : catalogue::kGroups) {
    std::for_each(group->keys.begin(), group->keys.end(), take);
  }
}

Texts Complaints(Configuration& store, unsigned int features) {
  return store.Validate((features & kValidateAuthentication) != 0, (features & kValidateTls) != 0,
                        (features & kValidateAuthorization) != 0,
                        (features & kValidateZookeeperSecurity) != 0);
}
constexpr unsigned int kAllFeatures = 15;

/// A store in which every rule holds.
Ref<Configuration> ValidStore() {
  Ref<Configuration> store(new Configuration);
  ForEachKey([&](const CatalogueKey& row) {
    if (row.rule.kind == Kind::kNotEmpty) {
      store->Set(row.key, "x");
    }
  });
  return store;
}

/// Sets from text without a word on standard output. Returns: whether it was taken.
bool Convert(const Ref<Configuration>& store, const std::string& key, const std::string& value) {
  testing::internal::CaptureStdout();
  const bool taken = store->SetWithTypeAutoConvert(key, value);
  EXPECT_EQ(testing::internal::GetCapturedStdout().empty(), taken);
  return taken;
}

/// Texts at the edges of a rule, by whether it takes them.
std::vector<std::pair<std::string, bool>> EdgesOf(const CatalogueRule& rule) {
  const std::string start = std::to_string(rule.start);
  const std::string end = std::to_string(rule.end);
  const std::string below = std::to_string(rule.start - 1);
  const std::string above =
      rule.end == INT_MAX || rule.end == LONG_MAX ? below : std::to_string(rule.end + 1);
  switch (rule.kind) {
    case Kind::kNotEmpty:
      return {{" ", true}, {"", false}};
    case Kind::kIntRange:
    case Kind::kLongRange:
      return {{start, true}, {end, true}, {below, false}, {above, false}};
    case Kind::kStrRange:
      return {{start + "-" + end, true}, {end + "-" + start, true},       {start, false},
              {start + "-", false},      {start + "-" + above, false},    {below + "-" + end, false},
              {"x-" + end, false},       {start + "-" + end + "x", true}, {"", rule.allowEmpty}};
    default:
      return {};
  }
}

TEST(ConfigurationTest, EveryKeyHasItsDefaultTypeAndRule) {
  const Ref<Configuration> fresh(new Configuration);
  EXPECT_THAT(Complaints(*fresh, 0),
              UnorderedElementsAre(HasSubstr("<vyn.tessel.meta.node_lists>"),
                                   HasSubstr("<vyn.tessel.server.swap.path>"), HasSubstr("<" + kUrl + ">")));
  const Ref<Configuration> store = ValidStore();
  EXPECT_THAT(Complaints(*store, kAllFeatures), ElementsAre());
  std::set<std::string> seen;
  ForEachKey([&](const CatalogueKey& row) {
    SCOPED_TRACE(row.key);
    EXPECT_TRUE(seen.insert(row.key).second) << "declared twice";
    EXPECT_STRNE(row.meaning, "");
    const std::string type = catalogue::TypeText(row);
    const std::string value = type == "int"    ? std::to_string(fresh->GetInt(row.key, -99))
                              : type == "long" ? std::to_string(fresh->GetLong(row.key, -99))
                              : type == "bool" ? (fresh->GetBool(row.key, false) ? "true" : "false")
                                               : fresh->GetString(row.key, "absent");
    EXPECT_EQ(value, catalogue::DefaultText(row));
    const bool isNumber = type == "int" || type == "long";
    for (const char* text : {"x", "", "1.5", "00"}) {
      EXPECT_EQ(Convert(fresh, row.key, text), !isNumber) << text;
    }
    for (const auto& [text, good] : EdgesOf(row.rule)) {
      ASSERT_TRUE(Convert(store, row.key, text));
      for (const unsigned int feature : {0U, 1U, 2U, 4U, 8U, kAllFeatures}) {
        // A rule that belongs to several features complains once for each.
        const int times = row.flags == 0 ? 1 : std::popcount(row.flags & feature);
        const Texts complaints = Complaints(*store, feature);
        EXPECT_EQ(complaints.size(), good ? 0U : static_cast<std::size_t>(times)) << text;
        EXPECT_THAT(complaints, testing::Each(HasSubstr(std::string("<") + row.key + ">")));
      }
    }
    const bool isText = row.rule.kind == Kind::kNotEmpty;
    ASSERT_TRUE(Convert(store, row.key, isText ? "x" : catalogue::DefaultText(row)));
  });
  for (const CatalogueKey& row : catalogue::kWaterMark.keys) {
    EXPECT_TRUE(seen.contains(row.key)) << row.key;
  }
}

TEST(ConfigurationTest, WordsListsAndOddRanges) {
  const std::string ports = "vyn.tessel.rpc.transport.tcp.port.range";
  const std::string word = "vyn.tessel.rpc.transport.protocol";
  const std::string list = "vyn.tessel.rpc.shuffle_meta.worker.thread.group";
  const std::pair<std::string, std::pair<Texts, Texts>> rows[] = {
      {ports, {{"99999999999999999999-50000"}, {"-40000", "40000--1", "40000-00", "50000"}}},
      {word, {{"rc", "rc_v", "tcp"}, {"", "r", "TCP", "rc||rc_v", "||"}}},
      {list,
       {{"1,16,3", "1,3,3,"},
        {"", "1,3", "1,3,3,3", "0,1,1", "1,17,3", "1,,3", "1,x,3", "1,3.5,3", "1,00,3",
         "1,99999999999999999999,3", std::string("1,2,3\0x", 7)}}}};
  for (const auto& [key, texts] : rows) {
    for (const bool valid : {true, false}) {
      for (const std::string& text : valid ? texts.first : texts.second) {
        const Ref<Configuration> store = ValidStore();
        ASSERT_TRUE(Convert(store, key, text));
        EXPECT_EQ(Complaints(*store, 0).empty(), valid) << key << "=" << text;
      }
    }
  }
}

/// A store with one key of each type beside the catalogue.
Ref<Configuration> Store() {
  const Ref<Configuration> store = ValidStore();
  store->AddIntConf({"t.int", 7}, nullptr, 0);
  store->AddLongConf({"t.long", 8}, nullptr, 0);
  store->AddFltConf({"t.float", 1.5F}, nullptr, 0);
  store->AddBoolConf({"t.bool", true});
  store->AddStrConf({"t.text", "old"}, nullptr, 0);
  return store;
}

TEST(ConfigurationTest, ValuesFromText) {
  const auto store = Store();
  for (const auto& [text, taken, intValue, longValue] : std::vector<std::tuple<const char*, bool, int, long>>{
           {"-12", true, -12, -12},
           {" 5", true, 5, 5},
           {"4294970187", true, 2891, 4294970187},  // an int keeps its low 32 bits
           {"9223372036854775807", true, -1, LONG_MAX},
           {"12x", false, 7, 12},
           {"9223372036854775808", false, 7, LONG_MAX}}) {
    store->Set("t.int", 7);
    EXPECT_EQ(Convert(store, "t.int", text), taken) << text;
    EXPECT_EQ(Convert(store, "t.long", text), taken) << text;
    EXPECT_EQ(store->GetInt("t.int", -99), intValue) << text;
    EXPECT_EQ(store->GetLong("t.long", -99), longValue) << text;
  }
  const auto readFloat = [&](const char* text) {  // minus a million when it is refused
    return Convert(store, "t.float", text) ? store->GetFloat("t.float", -99) : -1e6F;
  };
  std::vector<float> floats;
  std::ranges::transform(std::vector{"0.0", "2.5", "-1e3", "0", "", "1.5x", "1e-7", "1e99"},
                         std::back_inserter(floats), readFloat);
  EXPECT_THAT(floats, ElementsAre(0, 2.5F, -1000, -1e6F, -1e6F, -1e6F, -1e6F, -1e6F));
  for (const char* text : {"true", "  true", "trueish", "True", "1", "", "tru"}) {
    EXPECT_TRUE(Convert(store, "t.bool", text));
    EXPECT_EQ(store->GetBool("t.bool", false), std::regex_match(text, std::regex(" *true.*"))) << text;
  }
  EXPECT_TRUE(Convert(store, "t.text", "\xff\xfe\t"));
  EXPECT_EQ(store->GetString("t.text", ""), "\xff\xfe\t");

  EXPECT_FALSE(Convert(store, "t.none", "1"));
  store->Set("t.none", 3);
  store->Set("t.float", 2.5F);
  EXPECT_EQ(store->GetInt("t.none", 0), 3);
  EXPECT_FALSE(Convert(store, "t.none", "1")) << "a value declares no key";
  EXPECT_EQ(store->GetInt("t.long", -5), -5);
  const std::string fallback = "fallback";
  EXPECT_EQ(&store->GetString("t.int", fallback), &fallback);
  testing::internal::CaptureStdout();
  store->Dump();
  for (const std::string& dump : {testing::internal::GetCapturedStdout(), store->DumpStr()}) {
    for (const char* line :
         {"t.none = 3\n", "t.float = 2.5", "t.text = \xff\xfe\t\n", "t.long = ", "t.bool = "}) {
      EXPECT_THAT(dump, HasSubstr(line));
    }
  }
}

TEST(ConfigurationTest, ARuleThatIsNoRuleAndAValueThatIsNotThereAreComplaints) {
  const auto store = Store();
  for (const Ref<Validator>& rule :
       {VIntRange::Create("k", 5, 5), VLongRange::Create("k", 5, 4), VStrRange::Create("k", 5, 5, true),
        Ref<Validator>(new VStrArray("k", 5, 5, 1, false)), Ref<Validator>(new VStrEnum("k", ""))}) {
    store->SetValidator("t.int", rule, 0);
    EXPECT_EQ(Complaints(*store, 0).size(), 1U);
  }
  for (const char* key : {"t.int", "t.float", "t.text", "t.bool"}) {
    store->SetValidator(key, VLongRange::Create(key, 1, 2), 0);
  }
  store->SetValidator("t.long", VIntRange::Create("t.long", 1, 2), 0);
  EXPECT_THAT(Complaints(*store, 0), ElementsAre()) << "a rule has no say about a value of another type";
  store->SetValidator("t.undeclared", VStrNotNull::Create("t.undeclared"), 0);
  EXPECT_EQ(Complaints(*store, 0).size(), 1U);
  Texts missing;
  for (ConfValueType type : {CONF_STRING, CONF_FLOAT, CONF_INT, CONF_LONG, CONF_BOOL}) {
    store->ValidateOneType("gone", VStrNotNull::Create("gone"), missing, type);
  }
  store->ValidateOneValueMap(missing, {{"none", nullptr}});
  EXPECT_EQ(missing.size(), 4U + 1);
}

TEST(ConfigurationTest, ReadersAndWritersTogether) {
  const auto store = Store();
  std::jthread writer([&] {
    for (int i = 8; i < 2000; ++i) {
      store->Set("t.int", i);
      store->SetWithTypeAutoConvert("t.long", std::to_string(i));
    }
  });
  for (int last = 0; last < 1999;) {
    const int now = store->GetInt("t.int", -1);
    EXPECT_GE(now, last);
    last = now;
    store->DumpStr();
  }
}

class ConfigurationFileTest : public testing::Test {
 protected:
  ~ConfigurationFileTest() override { Configuration::gInstance = nullptr; }
  /// Runs `work` without its words on standard output. Returns: those.
  static std::string Printed(const std::function<void()>& work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
  }
  test::TempDir mDir;
};

// What a line is, by one regular expression; a file is its pairs, each key in its first place with its last
// value.
TEST_F(ConfigurationFileTest, RandomLinesAreReadAsTheExpressionReadsThem) {
  const std::regex pair(R"( *([^ #=](?:[^=]*[^ =])?) *= *((?:[\s\S]*[^ ])?) *)");
  const Texts pieces{" ",    " ", "=", "=", "#", "a", "b", "key", "\t", "\r", std::string(1, '\0'),
                     "\xff", "$", "{"};
  const char* given = std::getenv("VYN_SEED");
  const std::string word = given == nullptr ? "1" : given;
  const unsigned int seed =
      word == "random" ? std::random_device()() : static_cast<unsigned int>(std::stoul(word));
  SCOPED_TRACE("VYN_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  for (int file = 0; file < 100; ++file) {
    std::string text;
    std::vector<std::pair<std::string, std::string>> expected;
    for (std::size_t lines = random() % 100; lines > 0; --lines) {
      std::string line;
      for (std::size_t count = random() % 10; count > 0; --count) {
        line += pieces[random() % pieces.size()];
      }
      text += line + (lines > 1 ? "\n" : "");
      std::string key = "-";
      std::string value = "-";
      const KVLine kind = KVParser::ParseLine(line, key, value);
      std::smatch parts;
      ASSERT_EQ(kind == KVLine::kPair, std::regex_match(line, parts, pair)) << testing::PrintToString(line);
      if (kind != KVLine::kPair) {
        ASSERT_EQ(key + value, "--");
        const auto first = line.find_first_not_of(' ');
        ASSERT_EQ(kind, first == std::string::npos            ? KVLine::kBlank
                        : line[first] == '#'                  ? KVLine::kComment
                        : line.find('=') == std::string::npos ? KVLine::kNoSeparator
                                                              : KVLine::kNoKey);
        continue;
      }
      ASSERT_EQ(key, parts[1].str()) << testing::PrintToString(line);
      ASSERT_EQ(value, parts[2].str()) << testing::PrintToString(line);
      const auto known = std::ranges::find(expected, key, &std::pair<std::string, std::string>::first);
      if (known == expected.end()) {
        expected.emplace_back(key, value);
      } else {
        known->second = value;
      }
    }
    KVParser parser;
    ASSERT_TRUE(parser.FromFile(mDir.Write("f", text)));
    ASSERT_EQ(parser.Size(), expected.size());
    for (unsigned int i = 0; i <= expected.size(); ++i) {
      std::string key = "-";
      std::string value = "-";
      std::string byKey;
      parser.GetI(i, key, value);
      const auto& [wantedKey, wanted] =
          i < expected.size() ? expected[i] : std::pair<std::string, std::string>("-", "-");
      ASSERT_EQ(key, wantedKey);
      ASSERT_EQ(value, wanted);
      ASSERT_EQ(parser.GetItem(key, byKey) ? byKey : "-", value);
    }
  }
}

TEST_F(ConfigurationFileTest, MarkersOfAValue) {
  setenv("VYN_HOME", "/opt/../opt/data", 1);
  setenv("VYN_BINARY_TYPE", "linux-x86_64", 1);
  unsetenv("VYN_VERSION");
  for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
           {"${VYN_HOME}/logs/", "/opt/../opt/data/logs/"},
           {"lost${VYN_HOME}/x${VYN_HOME}", "/opt/../opt/data/x${VYN_HOME}"},
           {"kept/${VYN_BINARY_TYPE}/${VYN_BINARY_TYPE}", "kept/linux-x86_64/${VYN_BINARY_TYPE}"},
           {"a${VYN_VERSION}", "a${VYN_VERSION}"}}) {
    std::string key;
    std::string value;
    KVParser::ParseLine("k=" + text, key, value);
    EXPECT_EQ(value, expected);
  }
}

TEST_F(ConfigurationFileTest, AFileThatCannotBeReadOrTakenIsNoStore) {
  ASSERT_EQ(mkfifo((mDir / "pipe").c_str(), 0600), 0);
  Texts paths{"", mDir / "missing", std::string(4096, '/'), mDir.Path(), mDir / "pipe", "/dev/zero"};
  if (geteuid() != 0) {
    paths.push_back(mDir.Write("locked", ""));
    ASSERT_EQ(chmod(paths.back().c_str(), 0), 0);
  }
  const std::string good = kPort + " = 4000\n";
  for (const std::string& text :
       {good + "vyn.unknown=1\n", good + "VYN.zookeeper.server.url=1\n", kPort + "=\n", kPort + "=38x1\n",
        kPort + "=3891\r\n", kPort + "=\xff\xfe\n"}) {
    paths.push_back(mDir.Write("bad" + std::to_string(paths.size()), text));
  }
  for (const std::string& path : paths) {
    const bool isText = path.find("bad") != std::string::npos;
    const std::string printed =
        Printed([&] { EXPECT_TRUE(Configuration::GetInstance(path) == nullptr) << path; });
    EXPECT_TRUE(!isText || std::regex_match(printed, std::regex("<.*[^\n]*\n"))) << "one line: " << printed;
    EXPECT_TRUE(Configuration::GetInstance() == nullptr);
  }
}

TEST_F(ConfigurationFileTest, TheFirstGoodLoadStaysAndAMergeGoesOnPastBadPairs) {
  const Ref<Configuration> any(new Configuration);
  Printed([&] { EXPECT_FALSE(any->MergeConfig(mDir.Write("bad", "vyn.unknown=1\n"))); });
  EXPECT_TRUE(any->MergeConfig(mDir.Write("first", kPort + "=4000\n" + kUrl + "=one\r\n")));
  const auto store = Configuration::GetInstance(mDir.Write("other", kPort + "=5000\n"));
  ASSERT_TRUE(store != nullptr);
  EXPECT_EQ(store->GetInt(kPort, 0), 4000);
  EXPECT_EQ(store->GetString(kUrl, ""), "one\r");
  EXPECT_EQ(store->GetInt("vyn.tessel.rpc.shuffle_meta.port", 0), 3892);
  EXPECT_FALSE(any->MergeConfig(mDir / "missing"));
  const std::string second = mDir.Write("second", "vyn.unknown=1\n" + kPort + "=x\n" + kUrl + "=two\n");
  EXPECT_THAT(Printed([&] { EXPECT_TRUE(any->MergeConfig(second)); }), HasSubstr("<vyn.unknown>"));
  EXPECT_EQ(store->GetInt(kPort, 0), 4000);
  EXPECT_EQ(store->GetString(kUrl, ""), "two");
  EXPECT_EQ(any->GetString(kUrl, ""), "") << "merged into the process's store, whichever is called";
}

TEST_F(ConfigurationFileTest, AMillionPairsCanBeMergedAndOneMoreCannot) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "a count on one thread: the other builds show it, this one would take a minute for it";
#endif
  ASSERT_TRUE(Configuration::GetInstance(mDir.Write("first", "")) != nullptr);
  const std::string path = mDir.Write("many", kUrl + "=merged\n");
  {
    std::ofstream file(path, std::ios::app);
    for (int i = 1; i < 1000000; ++i) {
      file << i << "=\n";
    }
  }
  const auto store = Configuration::GetInstance();
  Printed([&] { EXPECT_TRUE(store->MergeConfig(path)); });
  EXPECT_EQ(store->GetString(kUrl, ""), "merged");
  store->Set(kUrl, "kept");
  std::ofstream(path, std::ios::app) << "one more=\n";
  Printed([&] { EXPECT_FALSE(store->MergeConfig(path)); });
  EXPECT_EQ(store->GetString(kUrl, ""), "kept");
}

TEST(ConfigurationDocumentsTest, ThePageIsTheCatalogue) {
  const std::string page = test::ReadFile(kSource + "/docs/configuration.md");
  const auto begin = page.find("## " + std::string(catalogue::kGroups.front()->title));
  ASSERT_NE(begin, std::string::npos);
  EXPECT_EQ(page.substr(begin) + "\n", catalogue::MarkdownTables())
      << "replace the tables of docs/configuration.md by the output of: vynconf keys";
}

TEST(ConfigurationDocumentsTest, TheSampleShowsEveryKeyWithItsDefaultOrAValidValue) {
  const std::string text = test::ReadFile(kSource + "/conf/vyn.conf");
  std::set<std::string> shown;
  std::istringstream sample(text);
  Configuration store;
  std::string key;
  std::string value;
  for (std::string line; std::getline(sample, line);) {
    const bool isDefault = line.starts_with("#vyn.");
    if (KVParser::ParseLine(isDefault ? line.substr(1) : line, key, value) != KVLine::kPair) {
      continue;
    }
    EXPECT_TRUE(shown.insert(key).second) << key << " stands twice";
    std::string complaint;
    EXPECT_TRUE(isDefault || store.SetFromText(key, value, complaint)) << complaint;
  }
  ForEachKey([&](const CatalogueKey& row) {
    EXPECT_EQ(shown.erase(row.key), 1U) << row.key << " does not stand in the sample";
    const std::string set = "\n" + std::string(row.key) + "=";
    const std::string byDefault = "\n#" + std::string(row.key) + "=" + catalogue::DefaultText(row) + "\n";
    EXPECT_TRUE(text.find(set) != std::string::npos || text.find(byDefault) != std::string::npos)
        << row.key << " is commented out with another value than its default";
  });
  EXPECT_THAT(shown, ElementsAre()) << "no keys";
  EXPECT_EQ(store.Validate(false, false, false, false), Texts{});
}

}  // namespace
}  // namespace vyn::common
