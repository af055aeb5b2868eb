#include "common/config/configuration_catalogue.h"

#include "common/config/kv_parser.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

namespace vyn::common {
namespace {

const std::string kSource = VYN_SOURCE_DIR;

TEST(ConfigurationCatalogueTest, DefaultsPassTheirOwnRulesButForThreeKeys) {
  Configuration store;
  EXPECT_EQ(
      store.Validate(false, false, false, false),
      (std::vector<std::string>{"Invalid value for <vyn.tessel.meta.node_lists>, it should not be empty",
                                "Invalid value for <vyn.tessel.server.swap.path>, it should not be empty",
                                "Invalid value for <vyn.zookeeper.server.url>, it should not be empty"}));
  // The rules of each feature, counted; every one of them wants a text that has no default.
  EXPECT_EQ(store.Validate(true, false, false, false).size(), 3U + 16);
  EXPECT_EQ(store.Validate(false, true, false, false).size(), 3U + 14);
  EXPECT_EQ(store.Validate(false, false, true, false).size(), 3U + 11);
  EXPECT_EQ(store.Validate(false, false, false, true).size(), 3U + 9);
}

TEST(ConfigurationCatalogueTest, EveryKeyIsDeclaredOnceWithItsDefault) {
  Configuration store;
  std::set<std::string> seen;
  for (const CatalogueGroup* group : catalogue::kGroups) {
    for (const CatalogueKey& row : group->keys) {
      EXPECT_TRUE(seen.insert(row.key).second) << row.key;
      EXPECT_STRNE(row.meaning, "") << row.key;
      const std::string type = catalogue::TypeText(row);
      const std::string value = type == "int"    ? std::to_string(store.GetInt(row.key, -99))
                                : type == "long" ? std::to_string(store.GetLong(row.key, -99))
                                : type == "bool" ? (store.GetBool(row.key, false) ? "true" : "false")
                                                 : store.GetString(row.key, "absent");
      EXPECT_EQ(value, catalogue::DefaultText(row)) << row.key;
    }
  }
  EXPECT_EQ(seen.size(), 91U);
  for (const CatalogueKey& row : catalogue::kWaterMark.keys) {
    EXPECT_TRUE(seen.contains(row.key)) << row.key;
  }
}

TEST(ConfigurationCatalogueTest, BoundsHoldOnBothSides) {
  const std::pair<const char*, std::pair<const char*, const char*>> cases[] = {
      {"vyn.tessel.rpc.shuffle_server.port", {"3000 65535", "2999 65536"}},
      {"vyn.zookeeper.session.timeout", {"10000 2147483647", "9999"}},
      {"vyn.kv.levelDB.max_file_size", {"2097152 134217728", "2097151 134217729"}},
      {"vyn.tuning.rpc.timeout", {"0 2147483647", "-1"}},
      {"vyn.tessel.broadcast.variable.fetch.timeout", {"-1 9223372036854775807", "-2"}},
      {"vyn.tessel.rpc.shuffle_meta.timeout", {"0", "-1"}},
      {"vyn.tessel.server.max_local_blob_capacity", {"25769803776", "25769803775"}},
      {"vyn.tessel.rpc.transport.protocol", {"rc rc_v tcp", "ud TCP"}},
      {"vyn.tessel.rpc.transport.tcp.port.range", {"40000-61000", "39999-61000 40000-61001 60000"}},
      {"vyn.tessel.rpc.shuffle_meta.worker.thread.group", {"1,16,3", "1,17,3 1,3 0,1,1"}},
      {"vyn.tessel.rpc.shuffle_meta.worker.thread.cpuset", {"0-256", "0-257 5"}},
  };
  for (const auto& [key, values] : cases) {
    for (const auto& [texts, valid] : {std::pair{values.first, true}, std::pair{values.second, false}}) {
      std::istringstream stream(texts);
      for (std::string text; stream >> text;) {
        Configuration store;
        ASSERT_TRUE(store.SetWithTypeAutoConvert(key, text));
        EXPECT_EQ(store.Validate(false, false, false, false).size(), valid ? 3U : 4U) << key << "=" << text;
      }
    }
  }
}

TEST(ConfigurationCatalogueTest, ThePageIsTheCatalogue) {
  const std::string page = test::ReadFile(kSource + "/docs/configuration.md");
  const auto begin = page.find("## " + std::string(catalogue::kGroups.front()->title));
  ASSERT_NE(begin, std::string::npos);
  EXPECT_EQ(page.substr(begin) + "\n", catalogue::MarkdownTables())
      << "replace the tables of docs/configuration.md by the output of: vynconf keys";
}

TEST(ConfigurationCatalogueTest, TheSampleShowsEveryKeyWithItsDefaultOrAValidValue) {
  std::set<std::string> shown;
  std::istringstream sample(test::ReadFile(kSource + "/conf/vyn.conf"));
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
    if (!isDefault) {
      EXPECT_TRUE(store.SetFromText(key, value, complaint)) << complaint;
    }
  }
  const std::string text = test::ReadFile(kSource + "/conf/vyn.conf");
  for (const CatalogueGroup* group : catalogue::kGroups) {
    for (const CatalogueKey& row : group->keys) {
      EXPECT_EQ(shown.erase(row.key), 1U) << row.key << " does not stand in the sample";
      const std::string set = "\n" + std::string(row.key) + "=";
      const std::string byDefault = "\n#" + std::string(row.key) + "=" + catalogue::DefaultText(row) + "\n";
      EXPECT_TRUE(text.find(set) != std::string::npos || text.find(byDefault) != std::string::npos)
          << row.key << " is commented out with another value than its default";
    }
  }
  EXPECT_TRUE(shown.empty()) << *shown.begin() << " is no key";
  EXPECT_EQ(store.Validate(false, false, false, false), std::vector<std::string>{});
}

}  // namespace
}  // namespace vyn::common
