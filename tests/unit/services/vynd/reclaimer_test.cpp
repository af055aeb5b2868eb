#include "services/node/reclaimer.h"

#include "services/common/variable_record.h"
#include "support/cluster_test.h"
#include "support/fabric.h"

namespace vyn::services {
namespace {

class ReclaimerTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    std::string error;
    ASSERT_TRUE(mFabric.Start(mPlace.Options(), error)) << error;
    ASSERT_EQ(mFabric.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mFabric.Allocate("app", 1, mId), 0);
  }
  void TearDown() override {
    mFabric.Stop();
    ClusterTest::TearDown();
  }
  void Entry(const std::string& name, const std::string& variablePath) {
    ReclaimEntry entry;
    entry.application = "app";
    entry.variablePath = variablePath;
    entry.owner = !variablePath.empty();
    mRaw->Create("/vyn/reclaim/7/" + name, entry.ToText());
  }

  test::FabricPlace mPlace{7};
  bm::FabricNode mFabric;
  std::string mId;
};

TEST_F(ReclaimerTest, KeepsWhatItCannotFreeUntilTheApplicationEnds) {
  struct Case {
    const char* name;
    std::string record;
  };
  const Case cases[] = {
      {"damaged", "no record"},
      {"incomplete", RecordHeader(RecordState::kDeleted, 1, 2, "0.1")},  // the second piece is missing
  };
  for (const Case& c : cases) {
    const std::string path = std::string("/vyn/apps/app/") + c.name;
    mRaw->Create(path, c.record);
    Entry(c.name, path);
  }
  Entry("done", "/vyn/apps/app/gone");
  int forgotten = 0;
  Reclaimer reclaimer(7, mFabric,
                      [&](const ReclaimEntry& entry) { forgotten += !entry.variablePath.empty(); });
  EXPECT_TRUE(reclaimer.Drain()) << "nothing is left that could be done";
  EXPECT_TRUE(reclaimer.Drain());
  EXPECT_EQ(forgotten, 3) << "each once: the number may be in use again";
  EXPECT_EQ(mRaw->Children("/vyn/reclaim/7").size(), 2U);
  EXPECT_EQ(mFabric.Stats().objects, 1U);
  for (const Case& c : cases) {
    EXPECT_TRUE(mRaw->Exists(std::string("/vyn/apps/app/") + c.name));
    std::size_t told = 0;
    for (const std::string& line : mLog.Texts(test::kErrorLine)) {
      told += line.find(std::string("blocks of /vyn/apps/app/") + c.name) != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(told, 1U) << c.name;
  }

  Entry("end", "");
  EXPECT_TRUE(reclaimer.Drain());
  EXPECT_TRUE(reclaimer.Drain());  // what stood in front of it in the list
  EXPECT_TRUE(mRaw->Children("/vyn/reclaim/7").empty());
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app/damaged"));
  EXPECT_EQ(mFabric.Stats().objects, 0U);
}

}  // namespace
}  // namespace vyn::services
