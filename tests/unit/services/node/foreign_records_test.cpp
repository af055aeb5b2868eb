// Records and reclaim entries that this build did not write: of a newer build, damaged, or made up.

#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/metadata/metadata_state.h"
#include "services/metadata/metadata_store.h"
#include "services/node/reclaimer.h"
#include "support/cluster_test.h"
#include "support/fabric.h"

namespace vyn::services {
namespace {

class ForeignRecordsTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    std::string error;
    fabric::FabricNodeOptions options = mPlace.Options();
    options.capacity = 8U << 20U;
    ASSERT_TRUE(mFabric.Start(options, error)) << error;
    ASSERT_EQ(mFabric.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mFabric.Allocate("app", 4096, mId), 0);
    mRaw->Create("/vyn/reclaim/7");
    mRaw->Create("/vyn/nodes/7");
    mRaw->Create("/vyn/epoch");
  }
  void TearDown() override {
    mFabric.Stop();
    ClusterTest::TearDown();
  }
  /// A ready variable of the block at node 7, deleted again; its entry comes after those that begin with "0".
  void DeleteAVariable() {
    MetadataState leader;
    ASSERT_EQ(leader.Load(), 0U);
    ASSERT_EQ(leader.NewVariable("app", 1, 1), 0U);
    tessel::BroadcastBlockInfo info;
    info.appId = "app";
    info.broadcastId = 1;
    info.nodeId = 7;
    info.bmIds = {mId};
    info.sizes = {4096};
    ASSERT_EQ(leader.SetBlocks(info), 0U);
    ASSERT_EQ(leader.RemoveVariable("app", 1), 0U);
  }

  test::FabricPlace mPlace{7};
  fabric::FabricNode mFabric;
  std::string mId;
};

TEST_F(ForeignRecordsTest, ANodeWorksOffWhatItCanBelieveAndKeepsWhatItCannotRead) {
  DeleteAVariable();
  ASSERT_EQ(mFabric.Stats().objects, 1U);
  const std::string newer = R"({"state":"ready","blockNum":1,"pieces":1,"list":"","format":2})";
  mRaw->Create("/vyn/apps/app/2.x", newer);
  mRaw->Create("/vyn/apps/other/3.x", RecordHeader(RecordState::kDeleted, 0, 0));
  const std::map<std::string, std::string> entries = {
      {"0a", R"({"app":"nosuch","path":"no slash","variable":1,"owner":true})"},
      {"0b", R"({"app":"nosuch","path":"/vyn/nodes","variable":1,"owner":true})"},
      {"0c", R"({"app":"app","path":"/vyn/apps/other/3.x","variable":3,"owner":true})"},
      {"0d", R"({"app":"app","path":"/vyn/apps/app/1.x/y","variable":1,"owner":true})"},
      {"0e", R"({"app":"a/b","path":"","variable":0,"owner":false})"},
      {"0f", ReclaimEntry{"app", "/vyn/apps/app/2.x", 2, true}.ToText()},
      {"0g", R"({"app":"app","path":"","variable":0,"owner":false,"format":2})"},
      {"0h", "rubbish"}};
  for (const auto& [name, text] : entries) {
    mRaw->Create("/vyn/reclaim/7/" + name, text);
  }
  Reclaimer reclaimer(7, mFabric, {});
  for (int time = 0; time < 2; ++time) {
    EXPECT_TRUE(reclaimer.Drain());
    EXPECT_EQ(mFabric.Stats().objects, 0U) << "what stands behind them in the list is freed";
    EXPECT_THAT(mRaw->Children("/vyn/reclaim/7"), testing::UnorderedElementsAre("0f", "0g", "0h"));
  }
  EXPECT_EQ(mFabric.CheckToken("app", "t"), 0);
  EXPECT_EQ(mRaw->Get("/vyn/apps/app/2.x"), newer);
  EXPECT_TRUE(mRaw->Exists("/vyn/nodes/7") && mRaw->Exists("/vyn/apps/other/3.x"));
}

TEST_F(ForeignRecordsTest, ANodeDoesNotLeadOverRecordsOfANewerBuild) {
  const std::pair<const char*, const char*> records[] = {
      {"/vyn/apps/other/2.x", R"({"state":"striped","layout":[],"format":2})"},
      {"/vyn/apps/app", R"({"format":2,"owner":"alice"})"}};
  for (const auto& [path, text] : records) {
    mRaw->Create(path, text);
    EXPECT_EQ(MetadataState().Load(), kStatusNewerRecord) << path;
    EXPECT_EQ(mRaw->Get(path), text);
    mRaw->Delete(path);
  }
  EXPECT_EQ(MetadataState().Load(), 0U);
}

}  // namespace
}  // namespace vyn::services
