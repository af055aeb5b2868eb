// What the metadata service remembers: random operations against a model of it, also on a leader that has
// just been fenced, and by hand what a neighbour or a lost answer does to the records.

#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/metadata/metadata_state.h"
#include "support/fake_clock.h"
#include "support/random_steps.h"
#include "support/zookeeper/cluster_test.h"
#include "support/zookeeper/zookeeper_calls.h"
#include "unit/services/metadata/metadata_model.h"

namespace vyn::services {
namespace {

using namespace std::chrono_literals;

/// So many blocks have a list of several znodes.
constexpr std::uint32_t kLong = 13500;
constexpr ApplicationLimits kLimits{.variables = 3, .blocks = kLong + 4};

/// Blocks [first, first + count) of a variable. The letter makes their ids.
struct Blocks : tessel::BroadcastBlockInfo {
  Blocks(const std::string& application, std::uint32_t id, std::uint32_t first, std::uint32_t count,
         std::uint32_t node = 1, char letter = 'b') {
    appId = application;
    broadcastId = id;
    nodeId = node;
    for (std::uint32_t i = first; i < first + count; ++i) {
      const std::string number = std::to_string(i);
      bmIds.push_back(std::string(60 - number.size(), letter) + number);
      sizes.push_back(i + 1);
    }
  }
};

class MetadataStoreTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    mRaw->Create("/vyn/reclaim/1", "");
    mRaw->Create("/vyn/reclaim/2", "");
  }
  std::vector<ReclaimEntry> Entries(const std::string& node) {
    std::vector<ReclaimEntry> entries;
    for (const std::string& name : mRaw->Children("/vyn/reclaim/" + node)) {
      EXPECT_TRUE(
          ReclaimEntry::FromText(mRaw->Get("/vyn/reclaim/" + node + "/" + name), entries.emplace_back()));
    }
    return entries;
  }
  /// Forgets what the entries of a node name, as the node does.
  void Forget(const std::string& node) {
    for (const std::string& name : mRaw->Children("/vyn/reclaim/" + node)) {
      const std::string path = "/vyn/reclaim/" + node + "/" + name;
      ReclaimEntry entry;
      EXPECT_TRUE(ReclaimEntry::FromText(mRaw->Get(path), entry));
      entry.forgotten = true;
      EXPECT_EQ(zookeeper::Set(path, entry.ToText()), ZOK);
    }
  }
  static std::unique_ptr<MetadataState> NewLeader() {
    auto leader = std::make_unique<MetadataState>(kLimits);
    EXPECT_EQ(leader->Load(), 0U);
    return leader;
  }
};

class MetadataModelTest : public MetadataStoreTest {
 protected:
  /// Does one step on the model, on a leader that has been fenced, if there is one, and on the leader.
  template <typename Step>
  void Try(MetadataState* fenced, Step step) {
    mModel.mWrote = false;
    const std::uint32_t expected = step(mModel);
    if (fenced != nullptr) {
      const auto before = Tree("/vyn");
      EXPECT_EQ(step(*fenced), mModel.mWrote ? MetadataStore::kStatusLeadershipLost : expected);
      EXPECT_TRUE(Tree("/vyn") == before) << "a fenced leader has written";
    }
    EXPECT_EQ(step(*mLeader), expected);
  }
  void CheckRead(const std::string& app, std::uint32_t id) {
    tessel::BroadcastBlockInfo read;
    const Model::Variable* variable = mModel.Find(app, id);
    const bool complete =
        variable != nullptr && variable->ready && variable->bmIds.size() == variable->blockNum;
    EXPECT_EQ(mLeader->GetVariable(app, id, read), complete              ? 0
                                                   : variable == nullptr ? kStatusUnknownVariable
                                                                         : kStatusNotReady);
    EXPECT_TRUE(!complete || (read.nodeId == variable->node && read.bmIds == variable->bmIds &&
                              read.sizes.size() == read.bmIds.size()));
  }
  void TryOne(test::RandomSteps& random, MetadataState* fenced) {
    const auto app = random.Pick<std::string>({"a", "b"});
    const std::uint32_t id =
        random.Number(random.OneIn(4) ? 5 : 2);  // few, so that they are complete at times
    const Model::Variable* variable = mModel.Find(app, id);
    const std::uint32_t blockNum = variable == nullptr ? 2 : variable->blockNum;
    const std::uint32_t first = random.OneIn(2) ? blockNum / 2 : 0;
    const auto node = random.Pick<std::uint32_t>({1, 1, 1, 1, 1, 2, 99});
    const char letter = random.OneIn(6) ? 'c' : 'b';
    // A long list that grows is written to new pieces: that comes often.
    const bool grows = variable != nullptr && blockNum == kLong && random.OneIn(2);
    const std::uint32_t choice = grows ? 6 : random.Number(12);
    random.Note("step", choice, app, id, "of", blockNum, fenced == nullptr ? "" : "also on a fenced leader");
    if (choice < 3) {
      const auto blocks = random.Pick<std::uint32_t>({0, 1, 3, kLong, kLong, tessel::kMaxBlocks + 1});
      Try(fenced, [&](auto& state) { return state.NewVariable(app, id, blocks); });
    } else if (choice < 6) {
      const Blocks info(app, id, 0, blockNum + (random.OneIn(6) ? 1 : 0), node, letter);
      Try(fenced, [&](auto& state) { return state.SetBlocks(info); });
    } else if (choice < 8) {
      const std::uint32_t count = std::max(blockNum, first + 1) - first + random.Number(3) - 1;
      const Blocks info(app, id, first, count, node, letter);
      Try(fenced, [&](auto& state) { return state.AddBlocks(info); });
    } else if (choice < 11) {
      Try(fenced, [&](auto& state) { return state.RemoveVariable(app, id); });
    } else {
      Try(fenced, [&](auto& state) { return state.RemoveApplication(app); });
    }
    CheckRead(app, id);
  }

  /// Returns: the value of every znode below `path`.
  std::map<std::string, std::string> Tree(const std::string& path) {
    std::map<std::string, std::string> tree{{path, mRaw->Get(path)}};
    for (const std::string& name : mRaw->Children(path)) {
      tree.merge(Tree(path + "/" + name));
    }
    return tree;
  }
  /// Does what the nodes were told, and compares it and what is left with the model.
  void CheckTree() {
    decltype(mModel.mEntries) told;
    for (const std::uint32_t node : {1, 2}) {
      const std::string list = "/vyn/reclaim/" + std::to_string(node);
      for (const ReclaimEntry& entry : Entries(std::to_string(node))) {
        told.insert({node, entry.application, entry.variableId, entry.owner});
        VariableRecord record;
        if (entry.owner && ReadVariableRecord(entry.variablePath, record) != RecordRead::kAbsent) {
          EXPECT_EQ(record.state, RecordState::kDeleted);
          EXPECT_EQ(zookeeper::DeleteTree(entry.variablePath), ZOK);
        }
      }
      EXPECT_EQ(zookeeper::DeleteTree(list), ZOK);
      mRaw->Create(list, "");
    }
    EXPECT_TRUE(told == std::exchange(mModel.mEntries, {}));
    std::size_t records = 0;
    for (const std::string& app : mRaw->Children("/vyn/apps")) {
      EXPECT_TRUE(mModel.mApplications.contains(app)) << app;
      for (const std::string& name : mRaw->Children("/vyn/apps/" + app)) {
        const std::string path = "/vyn/apps/" + app + "/" + name;
        const Model::Variable* variable = mModel.Find(app, static_cast<std::uint32_t>(std::stoul(name)));
        VariableRecord record;
        ASSERT_EQ(ReadVariableRecord(path, record), RecordRead::kRead) << path;
        ASSERT_NE(variable, nullptr) << path;
        EXPECT_EQ(record.state, variable->ready ? RecordState::kReady : RecordState::kNew);
        EXPECT_TRUE(record.blockNum == variable->blockNum && record.blocks.bmIds == variable->bmIds);
        EXPECT_EQ(mRaw->Children(path).size() + 1, std::max(record.pieces, 1U)) << path;
        ++records;
      }
    }
    EXPECT_EQ(records, mModel.mVariables.size());
  }

  Model mModel{kLimits};
  std::unique_ptr<MetadataState> mLeader;
};

TEST_F(MetadataModelTest, EveryLeaderServesAcknowledgedWritesAndAFencedLeaderWritesNothing) {
  for (const unsigned int seed : test::Seeds(3)) {
    test::RandomSteps random(seed);
    std::unique_ptr<MetadataState> fenced;
    for (int i = 0; i < 150 && !HasFailure(); ++i) {
      if (random.OneIn(15) && !mModel.mApplications.contains("b")) {  // as a registration at a node leaves it
        mRaw->Create("/vyn/apps/b", "{}");
        mModel.mApplications.insert("b");
      }
      if (i == 0 || random.OneIn(5)) {
        fenced = i == 0 ? nullptr : NewLeader();
        mLeader = NewLeader();
      }
      TryOne(random, fenced.get());
      fenced.reset();
      if (i % 5 == 4) {
        CheckTree();
      }
    }
    ASSERT_FALSE(HasFailure()) << random.Story();
    for (const char* app : {"a", "b"}) {
      EXPECT_EQ(mLeader->RemoveApplication(app), mModel.RemoveApplication(app));
    }
    CheckTree();
  }
}

TEST_F(MetadataStoreTest, AnApplicationEndsWhenItsHeartbeatsStop) {
  test::FakeClock clock;
  auto leader = NewLeader();
  ASSERT_EQ(leader->NewVariable("beating", 1, 1), 0U);
  ASSERT_EQ(leader->NewVariable("quiet", 1, 1), 0U);
  EXPECT_EQ(leader->HeartBeat("beating"), 0U);
  EXPECT_EQ(leader->HeartBeat("quiet", false), 0U);
  clock.SleepFor(5s);
  const auto old = std::exchange(leader, NewLeader());  // knows who beats, and gives each the whole time
  EXPECT_EQ(old->HeartBeat("quiet"), MetadataStore::kStatusLeadershipLost);
  clock.SleepFor(2s);
  leader->ExtendHeartbeatDeadlines(1s);
  EXPECT_TRUE(leader->Silent(1s).empty());
  EXPECT_EQ(leader->HeartBeat("beating", false), 0U);
  clock.SleepFor(2s);
  EXPECT_EQ(leader->Silent(1s), std::vector<std::string>{"beating"});
  bool removed = true;
  EXPECT_EQ(leader->Expire("beating", 3s, removed), 0U);
  EXPECT_FALSE(removed) << "it has sent another meanwhile";
  EXPECT_EQ(leader->Expire("beating", 1s, removed), 0U);
  EXPECT_TRUE(removed);
  EXPECT_EQ(mRaw->Children("/vyn/apps"), std::vector<std::string>{"quiet"});
}

TEST_F(MetadataStoreTest, LoadReadsTheRecordsOfEarlierLeadersAndRemovesIncompleteOnes) {
  auto leader = NewLeader();
  for (const std::uint32_t id : {1U, 2U}) {
    ASSERT_EQ(leader->NewVariable("app", id, 1), 0U);
    ASSERT_EQ(leader->SetBlocks(Blocks("app", id, 0, 1)), 0U);
  }
  const std::pair<std::string, std::string> records[] = {
      {"app/1.0-0", RecordHeader(RecordState::kNew, 1, 0)},  // a second record of the number, on either side
      {"app/2.9-9", RecordHeader(RecordState::kNew, 1, 0)},
      {"app/3.1-3", "no header"},
      {"app/4.1-4", RecordHeader(RecordState::kReady, 1, 1) + "no list"},
      {"app/5.1-5", RecordHeader(RecordState::kReady, 1, 2, "1-5")},  // its second piece is missing
      {"app/6.1-6", RecordHeader(RecordState::kNew, 1, 0, "", "writer")},
      {"app/7x.1-7", RecordHeader(RecordState::kNew, 1, 0)},  // no number: no variable's
      {"app/6.1-6/1-7.1", "a piece of a list that was never completed"},
      {"odd", R"({"heartbeat":"yes"})"},
      {"half", R"({"removed":true})"},  // a leader has ended while it removed the application
      {"half/3.1-1", RecordHeader(RecordState::kNew, 1, 0)}};
  for (const auto& [path, text] : records) {
    mRaw->Create("/vyn/apps/" + path, text);
  }
  leader = std::make_unique<MetadataState>();
  ASSERT_EQ(leader->Load(), 0U);
  for (std::uint32_t id = 1; id <= 7; ++id) {
    tessel::BroadcastBlockInfo info;
    const std::uint32_t unserved = id == 6 ? kStatusNotReady : kStatusUnknownVariable;
    EXPECT_EQ(leader->GetVariable("app", id, info), id <= 2 ? 0 : unserved) << id;
  }
  EXPECT_EQ(Entries("2").size(), 1U) << "no blocks were given back";
  EXPECT_EQ(Entries("2").at(0).application, "half");
  EXPECT_TRUE(leader->Silent(0ms).empty());
  EXPECT_EQ(leader->SetBlocks(Blocks("app", 6, 0, 1)), kStatusVariableExists);
  EXPECT_EQ(leader->GiveUp("app", 6, "writer", false), 0U);
  EXPECT_EQ(mRaw->Children("/vyn/apps/app").size(), 6U);
  EXPECT_EQ(mRaw->Children("/vyn/apps"), (std::vector<std::string>{"app", "odd"}));

  for (std::uint32_t id = 10; id < 120; ++id) {  // more than one transaction deletes
    ASSERT_EQ(leader->NewVariable("app", id, 1), 0U);
  }
  mRaw->Create("/vyn/apps/app/token", "{}");
  EXPECT_EQ(leader->RemoveApplication("app"), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));
}

TEST_F(MetadataStoreTest, AVariableIdIsReusableAfterEveryLiveNodeHasFreedItsBlocks) {
  auto leader = NewLeader();
  ASSERT_EQ(leader->NewVariable("app", 1, 2), 0U);
  ASSERT_EQ(leader->SetBlocks(Blocks("app", 1, 0, 2, 2)), 0U);
  ASSERT_EQ(leader->RemoveVariable("app", 1), 0U);
  VariableRecord record;
  ASSERT_EQ(ReadVariableRecord(Entries("2").at(0).variablePath, record), RecordRead::kRead);
  EXPECT_EQ(record.blocks.bmIds, Blocks("app", 1, 0, 2).bmIds) << "the node still learns what to free";

  mRaw->Create("/mf/node/1", "");  // node 2 is down
  leader = NewLeader();
  const auto refuse = [&](std::uint32_t status) {
    test::FakeClock clock;
    EXPECT_EQ(leader->NewVariable("app", 1, 1), status);
    leader->SweepDeleted();
    leader = NewLeader();
    EXPECT_EQ(leader->NewVariable("app", 1, 1), status);
  };
  refuse(kStatusNotForgotten);
  std::jthread node([&] {
    std::this_thread::sleep_for(200ms);
    Forget("1");
  });
  EXPECT_EQ(leader->NewVariable("app", 1, 1), 0U);
  EXPECT_EQ(Entries("1").size(), 1U) << "though its memory is not yet freed";
  ASSERT_EQ(leader->SetBlocks(Blocks("app", 1, 0, 1)), 0U);
  node = std::jthread([&] {
    EXPECT_TRUE(test::WaitUntil([&] { return Entries("1").size() == 2; }));
    std::this_thread::sleep_for(200ms);
    Forget("1");
  });
  EXPECT_EQ(leader->RemoveVariable("app", 1), 0U);
  const auto told = Entries("1");
  EXPECT_TRUE(std::all_of(told.begin(), told.end(), [](const auto& entry) { return entry.forgotten; }))
      << "who has deleted a variable can rely on it";
  node = {};
  EXPECT_EQ(leader->RemoveApplication("app"), 0U);
  refuse(kStatusNotForgotten);
  Forget("1");
  refuse(0);
  for (int time = 0; time < 2; ++time) {  // what was removed counts no more against the limit
    EXPECT_EQ(leader->NewVariable("app", 2, kLong), 0U);
    EXPECT_EQ(leader->RemoveVariable("app", 2), 0U);
  }
}

TEST_F(MetadataStoreTest, AnUnansweredReadWritesNothingAndAnUnansweredWriteEndsTheLeadership) {
  const std::uint32_t over = MetadataStore::kStatusLeadershipLost;
  struct Case {
    const char* function;
    int result;
    std::function<std::uint32_t(MetadataState& state)> call;
    std::uint32_t status;
  };
  const auto beat = [](auto& state) { return state.HeartBeat("odd"); };
  const auto end = [](auto& state) { return state.RemoveApplication("app"); };
  const auto make = [](auto& state) { return state.NewVariable("app", 2, 1); };
  const auto load = [](auto& state) { return state.Load(); };
  for (const Case& c :
       {Case{"DoDlZooGet", ZCONNECTIONLOSS, beat, kStatusUnanswered},
        Case{"DoDlZooGet", ZNOAUTH, beat, kStatusStore},
        Case{"DoDlZooGetChildren", ZOPERATIONTIMEOUT, end, kStatusUnanswered},
        Case{"DoDlZooExists", ZOPERATIONTIMEOUT, end, kStatusUnanswered},
        Case{"DoDlZooMulti", ZNOAUTH, make, kStatusStore}, Case{"DoDlZooMulti", ZCONNECTIONLOSS, make, over},
        Case{"DoDlZooMulti", ZINVALIDSTATE, end, over}, Case{"DoDlZooCreate", ZNOAUTH, load, kStatusStore},
        Case{"DoDlZooExists", ZCLOSING, load, kStatusUnanswered},
        Case{"DoDlZooGetChildren", ZCONNECTIONLOSS, load, kStatusUnanswered},
        Case{"DoDlZooGet", ZCONNECTIONLOSS, load, kStatusUnanswered}}) {
    SCOPED_TRACE(std::string(c.function) + std::to_string(c.result));
    const auto state = NewLeader();
    ASSERT_EQ(state->NewVariable("app", 1, 1), 0U);
    ASSERT_EQ(state->SetBlocks(Blocks("app", 1, 0, 1)), 0U);
    std::atomic<bool> done{false};
    std::jthread behind;
    {
      const test::ZookeeperCalls calls([&](const test::ZookeeperCall& call) {
        if (call.function != c.function || done.exchange(true)) {
          return call.make();
        }
        if (c.status == over) {  // made, and its answer is lost, while another write waits behind it
          call.make();
          behind = std::jthread([&] { EXPECT_EQ(state->NewVariable("app", 3, 1), over); });
          std::this_thread::sleep_for(50ms);
        }
        return c.result;
      });
      EXPECT_EQ(c.call(*state), c.status);
    }
    EXPECT_TRUE(done);
    behind = {};
    EXPECT_EQ(state->RemoveVariable("app", 9), c.status == over ? over : 0);
  }
}

}  // namespace
}  // namespace vyn::services
