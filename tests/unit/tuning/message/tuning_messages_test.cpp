// What the tuning messages have beyond plain fields: the key of a query, and parameters as pairs.

#include "tuning/message/tuning_messages.h"

#include "support/captured_log.h"
#include "support/raw_table.h"

#include <gtest/gtest.h>

namespace vyn::test {
namespace {

using tuning::InferResult;

TEST(TuningCommonInfo, BuildsTheKeyOfAQuery) {
  EXPECT_EQ((tuning::TuningCommonInfo{"f", "a", "q"}).BuildKey(), "f_a_q");
}

TEST(TuningParameters, NeedKeyAndValueAndTakeTheFirstOfEqualKeys) {
  CapturedLog log;
  const RawFields good = {Text("key", 4, "k"), Text("value", 6, "v")};
  struct Case {
    std::vector<RawFields> parameters;
    unsigned status;
    std::vector<std::string> words;
  };
  for (const Case& each :
       {Case{{good, {Text("key", 4, "k"), Text("value", 6, "other")}}, 0, {}},
        Case{{good, {Text("value", 6, "v")}}, 2020015, {"Unexpected nullptr value (key)"}},
        Case{{good, {Text("key", 4, "l")}}, 2020015, {"Unexpected nullptr value (value)"}}}) {
    std::string bytes = RawBuffer({Tables("parameters", 6, each.parameters)});
    InferResult result;
    ASSERT_EQ(result.SetInputRawData(bytes.data(), bytes.size(), false), 0U);
    log.Clear();
    EXPECT_EQ(result.Deserialize(), each.status);
    EXPECT_EQ(log.Texts(4), each.words);
    EXPECT_EQ(result.parameters, (std::map<std::string, std::string>{{"k", "v"}}));
  }
}

}  // namespace
}  // namespace vyn::test
