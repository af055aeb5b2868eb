#include "platform/zk_helper/zk_helper.h"
#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/metadata/metadata_state.h"
#include "support/cluster_test.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <functional>
#include <thread>
#include <utility>

namespace {

/// Runs when the next transaction has been committed, whose reply then is lost.
std::function<void()> gCommitLost;
/// The next question whether this znode or one below it exists gets no answer.
std::string gUnanswered;

}  // namespace

// Found before the helper's own.
extern "C" int DoDlZooMulti(zhandle_t* handle, int count, const zoo_op_t* operations) {
  static const auto real = reinterpret_cast<decltype(&DoDlZooMulti)>(dlsym(RTLD_NEXT, "DoDlZooMulti"));
  const auto lost = std::exchange(gCommitLost, nullptr);
  const int result = real(handle, count, operations);
  if (!lost) {
    return result;
  }
  lost();
  return ZCONNECTIONLOSS;
}

extern "C" int DoDlZooExists(zhandle_t* handle, const char* path, int watch, Stat* stat) {
  static const auto real = reinterpret_cast<decltype(&DoDlZooExists)>(dlsym(RTLD_NEXT, "DoDlZooExists"));
  if (!gUnanswered.empty() && std::string(path).starts_with(gUnanswered)) {
    gUnanswered.clear();
    return ZCONNECTIONLOSS;
  }
  return real(handle, path, watch, stat);
}

namespace vyn::services {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class MetadataStoreTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
  /// Two nodes, as their registries announce them.
  void AddNodes() {
    mRaw->Create("/vyn/reclaim/1", "");
    mRaw->Create("/vyn/reclaim/2", "");
  }
  struct Blocks : tessel::BroadcastBlockInfo {
    Blocks(std::uint32_t id, std::uint32_t count, std::uint32_t node = 1) {
      appId = "app";
      broadcastId = id;
      nodeId = node;
      for (std::uint32_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(i);
        bmIds.push_back(std::string(60 - number.size(), 'b') + number);
        sizes.push_back(i + 1);
      }
    }
  };
  static std::vector<std::string> Known(MetadataState& state, const std::vector<std::string>& names) {
    std::vector<std::string> known;
    EXPECT_EQ(state.Known(names, known), 0U);
    return known;
  }
  /// The entries of a node's list.
  std::vector<ReclaimEntry> Entries(int node) {
    std::vector<ReclaimEntry> entries;
    for (const std::string& name : mRaw->Children("/vyn/reclaim/" + std::to_string(node))) {
      ReclaimEntry entry;
      EXPECT_TRUE(
          ReclaimEntry::FromText(mRaw->Get("/vyn/reclaim/" + std::to_string(node) + "/" + name), entry));
      entries.push_back(entry);
    }
    return entries;
  }
};

TEST_F(MetadataStoreTest, TheNextLeaderServesWhatWasAcknowledged) {
  MetadataState first;
  ASSERT_EQ(first.Load(), 0U);
  ASSERT_EQ(first.NewVariable("app", 1, 3), 0U);
  ASSERT_EQ(first.SetBlocks(Blocks(1, 3)), 0U);
  ASSERT_EQ(first.NewVariable("app", 2, 20000), 0U);
  ASSERT_EQ(first.SetBlocks(Blocks(2, 20000, 2)), 0U);
  ASSERT_EQ(first.NewVariable("app", 3, 5), 0U);
  EXPECT_EQ(first.HeartBeat("beating"), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/beating")) << "a late heartbeat of an application that has ended";
  mRaw->Create("/vyn/apps/beating", "{}");  // as a registration leaves it
  EXPECT_EQ(first.HeartBeat("beating", false), 0U);
  EXPECT_EQ(mRaw->Get("/vyn/apps/beating"), "{}") << "a farewell";
  ASSERT_EQ(first.HeartBeat("beating"), 0U);
  int pieces = 0;
  for (const std::string& name : mRaw->Children("/vyn/apps/app")) {
    pieces += static_cast<int>(mRaw->Children("/vyn/apps/app/" + name).size());
  }
  EXPECT_GT(pieces, 1) << "the long list is longer than one znode takes";

  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  for (const std::uint32_t id : {1U, 2U}) {
    const auto expected = Blocks(id, id == 1 ? 3 : 20000, id);
    tessel::BroadcastBlockInfo info;
    ASSERT_EQ(next.GetVariable("app", id, info), 0U);
    EXPECT_TRUE(info.bmIds == expected.bmIds && info.sizes == expected.sizes);
    EXPECT_EQ(info.nodeId, id);
  }
  tessel::BroadcastBlockInfo info;
  EXPECT_EQ(next.GetVariable("app", 3, info), kStatusNotReady);
  EXPECT_EQ(next.GetVariable("app", 4, info), kStatusUnknownVariable);
  std::string bmId;
  EXPECT_EQ(next.GetBlock("app", 2, 19999, bmId), 0U);
  EXPECT_EQ(bmId, Blocks(2, 20000).bmIds.back());
  EXPECT_EQ(next.GetBlock("app", 2, 20000, bmId), kStatusUnknownVariable);
  EXPECT_THAT(Known(next, {"app", "beating", "other"}), SizeIs(2));
  EXPECT_TRUE(test::WaitUntil([&] { return !next.Silent(std::chrono::milliseconds(1)).empty(); }));
  EXPECT_THAT(next.Silent(std::chrono::milliseconds(1)), testing::ElementsAre("beating"));
  EXPECT_THAT(next.Silent(std::chrono::hours(1)), IsEmpty());
  next.Forgive(std::chrono::hours(1));
  EXPECT_THAT(next.Silent(std::chrono::milliseconds(1)), IsEmpty());
  next.Forgive(-std::chrono::hours(1));
  bool removed = true;
  EXPECT_EQ(next.Expire("beating", std::chrono::hours(1), removed), 0U);
  EXPECT_FALSE(removed) << "it has sent a heartbeat meanwhile";
  EXPECT_EQ(next.Expire("beating", std::chrono::milliseconds(1), removed), 0U);
  EXPECT_TRUE(removed);
  EXPECT_THAT(Known(next, {"beating"}), IsEmpty());
}

TEST_F(MetadataStoreTest, ADeposedLeaderChangesNothing) {
  AddNodes();
  MetadataState old;
  ASSERT_EQ(old.Load(), 0U);
  ASSERT_EQ(old.NewVariable("app", 1, 1), 0U);
  ASSERT_EQ(old.SetBlocks(Blocks(1, 1)), 0U);
  ASSERT_EQ(old.NewVariable("app", 2, 1), 0U);
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);

  const auto deposed = MetadataStore::kStatusDeposed;
  EXPECT_EQ(old.NewVariable("app", 3, 1), deposed);
  EXPECT_EQ(old.NewVariable("other", 1, 1), deposed);
  EXPECT_EQ(old.SetBlocks(Blocks(2, 1)), deposed);
  EXPECT_EQ(old.AddBlocks(Blocks(2, 1)), deposed);
  EXPECT_EQ(old.RemoveVariable("app", 1), deposed);
  EXPECT_EQ(old.RemoveVariable("app", 2), deposed);
  EXPECT_EQ(old.RemoveApplication("app"), deposed);
  EXPECT_EQ(old.RemoveApplication("never-seen"), deposed);
  EXPECT_EQ(old.HeartBeat("app"), deposed);

  EXPECT_THAT(mRaw->Children("/vyn/apps"), testing::ElementsAre("app"));
  EXPECT_THAT(mRaw->Children("/vyn/apps/app"), SizeIs(2));
  EXPECT_EQ(mRaw->Get("/vyn/apps/app"), "{}");
  EXPECT_THAT(Entries(1), IsEmpty());
  EXPECT_THAT(Entries(2), IsEmpty());
  MetadataState third;
  ASSERT_EQ(third.Load(), 0U);
  tessel::BroadcastBlockInfo info;
  EXPECT_EQ(third.GetVariable("app", 1, info), 0U);
  EXPECT_EQ(third.GetVariable("app", 2, info), kStatusNotReady);
}

TEST_F(MetadataStoreTest, ARepeatSucceedsAndAContradictionDoesNot) {
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  EXPECT_EQ(state.NewVariable("app", 1, 2), 0U);
  EXPECT_EQ(state.NewVariable("app", 1, 2), 0U);
  EXPECT_EQ(state.NewVariable("app", 1, 3), kStatusVariableExists);
  EXPECT_EQ(state.NewVariable("app", 2, MetadataStore::kMaxBlocks + 1), kStatusTooLarge);
  EXPECT_EQ(state.SetBlocks(Blocks(1, 3)), kStatusInvalidRequest);
  EXPECT_EQ(state.SetBlocks(Blocks(9, 2)), kStatusUnknownVariable);
  EXPECT_EQ(state.SetBlocks(Blocks(1, 2)), 0U);
  EXPECT_EQ(state.SetBlocks(Blocks(1, 2)), 0U);
  auto others = Blocks(1, 2);
  others.bmIds[0][0] = 'c';
  EXPECT_EQ(state.SetBlocks(others), kStatusVariableExists);
  EXPECT_THAT(mRaw->Children("/vyn/apps/app"), SizeIs(1));

  // Block by block, one of them twice.
  EXPECT_EQ(state.NewVariable("app", 4, 2), 0U);
  const auto both = Blocks(4, 2);
  auto one = Blocks(4, 1);
  EXPECT_EQ(state.AddBlocks(one), 0U);
  EXPECT_EQ(state.AddBlocks(one), 0U);
  tessel::BroadcastBlockInfo info;
  EXPECT_EQ(state.GetVariable("app", 4, info), kStatusNotReady);
  one.bmIds = {both.bmIds[1]};
  one.sizes = {both.sizes[1]};
  EXPECT_EQ(state.AddBlocks(one), 0U);
  EXPECT_EQ(state.GetVariable("app", 4, info), 0U);
  EXPECT_EQ(info.bmIds, both.bmIds);
  EXPECT_EQ(state.AddBlocks(Blocks(4, 3)), kStatusInvalidRequest);
  EXPECT_EQ(state.AddBlocks(Blocks(4, 400000)), kStatusInvalidRequest) << "at once";
}

TEST_F(MetadataStoreTest, AnApplicationHasNoMoreThanItMayHave) {
  {
    MetadataState state;
    ASSERT_EQ(state.Load(), 0U);
    ASSERT_EQ(state.NewVariable("app", 1, 6), 0U);
  }
  MetadataState state({.variables = 3, .blocks = 10});
  ASSERT_EQ(state.Load(), 0U);
  EXPECT_EQ(state.NewVariable("app", 2, 5), kStatusLimit) << "with what an earlier leader took";
  EXPECT_EQ(state.NewVariable("app", 2, 4), 0U);
  EXPECT_EQ(state.NewVariable("app", 2, 4), 0U) << "a repeat";
  EXPECT_EQ(state.NewVariable("app", 3, 0), 0U);
  EXPECT_EQ(state.NewVariable("app", 4, 0), kStatusLimit);
  EXPECT_EQ(state.NewVariable("other", 4, 10), 0U);
  EXPECT_EQ(state.RemoveVariable("app", 1), 0U);
  EXPECT_EQ(state.NewVariable("app", 4, 6), 0U);
}

TEST_F(MetadataStoreTest, ALongListIsWrittenAnewAtOnce) {
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  ASSERT_EQ(state.NewVariable("app", 1, 20000), 0U);
  const auto all = Blocks(1, 20000);
  auto most = Blocks(1, 19999);
  ASSERT_EQ(state.AddBlocks(most), 0U);
  const std::string record = "/vyn/apps/app/" + mRaw->Children("/vyn/apps/app").at(0);
  const auto pieces = mRaw->Children(record);
  ASSERT_THAT(pieces, testing::Not(IsEmpty()));
  // A leader that ended while it wrote the longer list has left the older one whole.
  mRaw->Create(record + "/9-9.1", "a piece");
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  std::string bmId;
  ASSERT_EQ(next.GetBlock("app", 1, 19998, bmId), 0U);
  EXPECT_EQ(bmId, all.bmIds[19998]);

  auto last = Blocks(1, 0);
  last.bmIds = {all.bmIds.back()};
  last.sizes = {all.sizes.back()};
  ASSERT_EQ(next.AddBlocks(last), 0U);
  for (const std::string& piece : pieces) {
    EXPECT_FALSE(mRaw->Exists(record + "/" + piece)) << "of the list that has been replaced";
  }
  MetadataState third;
  ASSERT_EQ(third.Load(), 0U);
  tessel::BroadcastBlockInfo info;
  ASSERT_EQ(third.GetVariable("app", 1, info), 0U);
  EXPECT_TRUE(info.bmIds == all.bmIds && info.sizes == all.sizes);
  EXPECT_EQ(third.RemoveVariable("app", 1), 0U);
  EXPECT_FALSE(mRaw->Exists(record));
}

TEST_F(MetadataStoreTest, ADeletedVariableIsGivenBackByItsNode) {
  AddNodes();
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  ASSERT_EQ(state.NewVariable("app", 1, 2), 0U);
  ASSERT_EQ(state.SetBlocks(Blocks(1, 2, 2)), 0U);
  ASSERT_EQ(state.RemoveVariable("app", 1), 0U);
  EXPECT_EQ(state.RemoveVariable("app", 1), 0U) << "a repeat";
  tessel::BroadcastBlockInfo info;
  EXPECT_EQ(state.GetVariable("app", 1, info), kStatusUnknownVariable);
  ASSERT_THAT(Entries(1), SizeIs(1));
  ASSERT_THAT(Entries(2), SizeIs(1));
  EXPECT_FALSE(Entries(1)[0].owner);
  const ReclaimEntry owner = Entries(2)[0];
  EXPECT_TRUE(owner.owner);
  EXPECT_EQ(owner.application, "app");
  EXPECT_EQ(owner.variableId, 1U);
  VariableRecord record;
  ASSERT_EQ(ReadVariableRecord(owner.variablePath, record), RecordRead::kRead);
  EXPECT_EQ(record.state, RecordState::kDeleted);
  EXPECT_EQ(record.blocks.bmIds, Blocks(1, 2).bmIds) << "the node still learns what to free";

  // The number can be used again once the live nodes have forgotten the old variable, also under the next
  // leader, and no later leader takes the old record for it.
  mRaw->Create("/mf/node/1", "");
  MetadataState after;
  ASSERT_EQ(after.Load(), 0U);
  gUnanswered = "/vyn/reclaim/1/";
  std::jthread node([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    mRaw->Delete("/vyn/reclaim/1/" + mRaw->Children("/vyn/reclaim/1").at(0));
  });
  ASSERT_EQ(after.NewVariable("app", 1, 1), 0U);
  EXPECT_THAT(Entries(1), IsEmpty()) << "the node was waited for";
  node.join();
  ASSERT_EQ(after.SetBlocks(Blocks(1, 1)), 0U);
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  ASSERT_EQ(next.GetVariable("app", 1, info), 0U);
  EXPECT_EQ(info.bmIds, Blocks(1, 1).bmIds);
}

TEST_F(MetadataStoreTest, VariablesThatNoNodeCanGiveBackGoAtOnce) {
  AddNodes();
  {
    MetadataState state;
    ASSERT_EQ(state.Load(), 0U);
    ASSERT_EQ(state.NewVariable("app", 1, 1), 0U);
    ASSERT_EQ(state.NewVariable("app", 2, 1), 0U);
    ASSERT_EQ(state.SetBlocks(Blocks(2, 1, 99)), 0U);
  }
  // As a leader leaves it that ended while it wrote a long list.
  const auto names = mRaw->Children("/vyn/apps/app");
  const auto& unready = names[names[0].rfind("1.", 0) == 0 ? 0 : 1];
  mRaw->Create("/vyn/apps/app/" + unready + "/1", "a piece");
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  EXPECT_EQ(state.RemoveVariable("app", 1), 0U);
  EXPECT_EQ(state.RemoveVariable("app", 2), 0U);
  EXPECT_THAT(mRaw->Children("/vyn/apps/app"), IsEmpty());
}

TEST_F(MetadataStoreTest, ARemovedApplicationGoesAlsoWhenItsLeaderEndsInBetween) {
  AddNodes();
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  for (std::uint32_t id = 0; id < 250; ++id) {
    ASSERT_EQ(state.NewVariable("app", id, 1), 0U);
  }
  ASSERT_EQ(state.NewVariable("app", 250, 20000), 0U);
  ASSERT_EQ(state.SetBlocks(Blocks(250, 20000)), 0U);
  mRaw->Create("/vyn/apps/app/token", "{}");
  ASSERT_EQ(state.RemoveApplication("app"), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));
  for (const int node : {1, 2}) {
    ASSERT_THAT(Entries(node), SizeIs(1));
    EXPECT_EQ(Entries(node)[0].application, "app");
    EXPECT_TRUE(Entries(node)[0].variablePath.empty());
  }
  EXPECT_EQ(state.RemoveApplication("never-seen"), 0U) << "nodes may hold a namespace of it";
  EXPECT_THAT(Entries(1), SizeIs(2));

  mRaw->Create("/vyn/apps/half", R"({"removed":true})");
  mRaw->Create("/vyn/apps/half/3.1-1", RecordHeader(RecordState::kNew, 1, 0));
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/half"));
  EXPECT_THAT(Known(next, {"half"}), IsEmpty());
  EXPECT_THAT(Entries(1), SizeIs(3));
}

TEST_F(MetadataStoreTest, DamagedRecordsAreLeftOut) {
  mRaw->Create("/vyn/apps/app", R"({"heartbeat":"yes"})");
  mRaw->Create("/vyn/apps/app/1.1-1", "no header");
  mRaw->Create("/vyn/apps/app/2.1-2", RecordHeader(RecordState::kReady, 1, 1) + "no list");
  mRaw->Create("/vyn/apps/app/3.1-3", RecordHeader(RecordState::kNew, 1, 0));
  mRaw->Create("/vyn/apps/app/4.1-4", RecordHeader(RecordState::kReady, 1, 2, "1-5"));
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  EXPECT_TRUE(mLog.Has(test::kErrorLine,
                       "A piece of the record /vyn/apps/app/4.1-4 is missing, the variable is left out"));
  tessel::BroadcastBlockInfo info;
  EXPECT_EQ(state.GetVariable("app", 1, info), kStatusUnknownVariable);
  EXPECT_EQ(state.GetVariable("app", 2, info), kStatusUnknownVariable);
  EXPECT_EQ(state.GetVariable("app", 3, info), kStatusNotReady);
  EXPECT_THAT(state.Silent(std::chrono::milliseconds(0)), IsEmpty());
}

TEST_F(MetadataStoreTest, AWriteBehindOneOfUnknownOutcomeIsRefused) {
  AddNodes();
  const auto deposed = MetadataStore::kStatusDeposed;
  for (const bool removal : {false, true}) {
    MetadataState state;
    ASSERT_EQ(state.Load(), 0U);
    ASSERT_EQ(state.NewVariable("app", 2, 1), 0U);
    std::jthread other;
    gCommitLost = [&] {
      other = std::jthread([&] {
        EXPECT_EQ(state.NewVariable("app", 1, 1), deposed);
        EXPECT_EQ(state.HeartBeat("app"), deposed);
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    };
    EXPECT_EQ(removal ? state.RemoveVariable("app", 1) : state.NewVariable("app", 1, 1), deposed);
    other.join();
    EXPECT_THAT(mRaw->Children("/vyn/apps/app"), SizeIs(removal ? 1 : 2)) << removal;
  }
}

TEST_F(MetadataStoreTest, OfTwoRecordsWithOneNumberTheReadyOneStays) {
  AddNodes();
  {
    MetadataState state;
    ASSERT_EQ(state.Load(), 0U);
    for (const std::uint32_t id : {1U, 2U}) {
      ASSERT_EQ(state.NewVariable("app", id, 1), 0U);
      ASSERT_EQ(state.SetBlocks(Blocks(id, 1)), 0U);
      // Several, as their order is of ZooKeeper's making.
      for (const char* unique : {".0-0", ".9-9"}) {
        mRaw->Create("/vyn/apps/app/" + std::to_string(id) + unique, RecordHeader(RecordState::kNew, 1, 0));
      }
    }
  }
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  tessel::BroadcastBlockInfo info;
  EXPECT_EQ(next.GetVariable("app", 1, info), 0U);
  EXPECT_EQ(next.GetVariable("app", 2, info), 0U);
  EXPECT_THAT(mRaw->Children("/vyn/apps/app"), SizeIs(2));
  EXPECT_THAT(Entries(1), IsEmpty()) << "no blocks were given back";
}

TEST_F(MetadataStoreTest, AWriteOfUnknownOutcomeEndsTheLeadership) {
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  mRaw->Create("/vyn/apps/app", "{}");
  ASSERT_EQ(state.HeartBeat("app"), 0U);
  gServer->Kill();
  bool removed = true;
  EXPECT_TRUE(Failed(state.Expire("app", std::chrono::milliseconds(0), removed)));
  EXPECT_FALSE(removed);
  EXPECT_EQ(state.NewVariable("app", 1, 1), MetadataStore::kStatusDeposed);
  gServer->Start();
  EXPECT_TRUE(test::WaitUntil([] { return gServer->Mode() == "standalone"; }));
}

}  // namespace
}  // namespace vyn::services
