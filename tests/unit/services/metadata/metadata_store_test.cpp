// What the metadata service remembers: random operations against a model of it, also on a leader that has
// just been deposed, and by hand what a neighbour or a lost answer does to the records.

#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/metadata/metadata_state.h"
#include "support/cluster_test.h"
#include "support/fake_clock.h"
#include "support/random_steps.h"
#include "support/zookeeper_calls.h"
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
    Connect();
    for (const char* node : {"1", "2"}) {
      mRaw->Create(std::string("/vyn/reclaim/") + node, "");
    }
  }
  std::vector<ReclaimEntry> Entries(const std::string& node) {
    std::vector<ReclaimEntry> entries;
    for (const std::string& name : mRaw->Children("/vyn/reclaim/" + node)) {
      EXPECT_TRUE(
          ReclaimEntry::FromText(mRaw->Get("/vyn/reclaim/" + node + "/" + name), entries.emplace_back()));
    }
    return entries;
  }
};

class MetadataModelTest : public MetadataStoreTest {
 protected:
  std::unique_ptr<MetadataState> NewLeader() {
    auto leader = std::make_unique<MetadataState>(kLimits);
    EXPECT_EQ(leader->Load(), 0U);
    for (auto& [name, application] : mModel.mApplications) {
      application.lastBeat = mClock.Now();
    }
    return leader;
  }
  /// Does one step on the model, on a leader that has been deposed, if there is one, and on the leader.
  template <typename Step>
  void Try(MetadataState* deposed, Step step) {
    mModel.mWrote = false;
    const auto expected = step(mModel);
    if (deposed != nullptr) {
      const auto before = Tree("/vyn");
      const auto result = step(*deposed);
      if constexpr (std::is_same_v<decltype(step(mModel)), std::uint32_t>) {
        EXPECT_EQ(result, mModel.mWrote ? MetadataStore::kStatusLeadershipLost : expected);
      } else {
        EXPECT_TRUE(result == expected);
      }
      EXPECT_TRUE(Tree("/vyn") == before) << "a deposed leader has written";
    }
    EXPECT_TRUE(step(*mLeader) == expected);
  }
  void TryOne(test::RandomSteps& random, MetadataState* deposed) {
    const auto app = random.Pick<std::string>({"a", "b"});
    const std::uint32_t id = random.Number(5);
    const Model::Variable* variable = mModel.Find(app, id);
    const std::uint32_t blockNum = variable == nullptr ? 2 : variable->blockNum;
    const std::uint32_t first = random.OneIn(2) ? blockNum / 2 : 0;
    const std::uint32_t count = blockNum - first + (random.OneIn(6) ? 1 : 0);
    const auto node = random.Pick<std::uint32_t>({1, 1, 1, 2, 99});
    const char letter = random.OneIn(4) ? 'c' : 'b';
    const auto timeout = random.Pick<std::chrono::milliseconds>({0ms, 2s});
    const auto blocks = random.Pick<std::uint32_t>({0, 1, 3, 3, kLong, MetadataStore::kMaxBlocks + 1});
    const bool alive = !random.OneIn(3);
    // A long list that grows is written to new pieces: that comes often.
    const bool grows = variable != nullptr && variable->blockNum == kLong && random.OneIn(2);
    const std::uint32_t choice = grows ? 5 : random.Number(14);
    random.Note("step " + std::to_string(choice) + " " + app + std::to_string(id) + " of " +
                std::to_string(blockNum) + (deposed == nullptr ? "" : ", also on a deposed leader"));
    if (choice < 3) {
      Try(deposed, [&](auto& state) { return state.NewVariable(app, id, blocks); });
    } else if (choice < 5) {
      const Blocks info(app, id, 0, blockNum + (random.OneIn(6) ? 1 : 0), node, letter);
      Try(deposed, [&](auto& state) { return state.SetBlocks(info); });
    } else if (choice < 7) {
      const Blocks info(app, id, first, count - (random.OneIn(2) && count > 0 ? 1 : 0), node, letter);
      Try(deposed, [&](auto& state) { return state.AddBlocks(info); });
    } else if (choice < 9) {
      Try(deposed, [&](auto& state) { return state.RemoveVariable(app, id); });
    } else if (choice == 9 && alive) {
      Try(deposed, [&](auto& state) {
        bool removed = false;
        const std::uint32_t status = state.Expire(app, timeout, removed);
        return removed ? std::uint32_t{1} : status;
      });
    } else if (choice == 9) {
      Try(deposed, [&](auto& state) { return state.RemoveApplication(app); });
    } else if (choice == 10) {
      Try(deposed, [&](auto& state) { return state.HeartBeat(app, alive); });
    } else if (choice == 11) {
      Try(deposed, [&](auto& state) {
        std::vector<std::string> known;
        EXPECT_EQ(state.Known({"a", "b", "never"}, known), 0U);
        return std::tuple(known, state.Silent(timeout));
      });
    } else {
      Try(deposed, [&](auto& state) {
        tessel::BroadcastBlockInfo info;
        const std::uint32_t status = state.GetVariable(app, id, info);
        std::string bmId;
        const std::uint32_t found = state.GetBlock(app, id, first, bmId);
        return std::tuple(status, info.nodeId, info.bmIds, info.sizes, found, bmId);
      });
    }
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
    for (const std::string node : {"1", "2"}) {
      for (const ReclaimEntry& entry : Entries(node)) {
        told.insert({node == "1" ? 1U : 2U, entry.application, entry.variableId, entry.owner});
        VariableRecord record;
        if (entry.owner && ReadVariableRecord(entry.variablePath, record) != RecordRead::kAbsent) {
          EXPECT_EQ(record.state, RecordState::kDeleted);
          EXPECT_EQ(zookeeper::DeleteTree(entry.variablePath), ZOK);
        }
      }
      EXPECT_EQ(zookeeper::DeleteTree("/vyn/reclaim/" + node), ZOK);
      mRaw->Create("/vyn/reclaim/" + node, "");
    }
    EXPECT_TRUE(told == std::exchange(mModel.mEntries, {}));
    std::vector<std::string> names;
    for (const auto& [app, application] : mModel.mApplications) {
      names.push_back(app);
      const auto records = mRaw->Children("/vyn/apps/" + app);
      EXPECT_EQ(records.size(), application.variables.size());
      for (const std::string& name : records) {
        const std::string path = "/vyn/apps/" + app + "/" + name;
        const Model::Variable* variable = mModel.Find(app, static_cast<std::uint32_t>(std::stoul(name)));
        VariableRecord record;
        ASSERT_EQ(ReadVariableRecord(path, record), RecordRead::kRead) << path;
        ASSERT_NE(variable, nullptr) << path;
        EXPECT_EQ(record.state, variable->ready ? RecordState::kReady : RecordState::kNew);
        EXPECT_TRUE(record.blockNum == variable->blockNum && record.blocks.bmIds == variable->bmIds);
        EXPECT_EQ(mRaw->Children(path).size() + 1, std::max(record.pieces, 1U)) << path;
      }
    }
    EXPECT_EQ(mRaw->Children("/vyn/apps"), names);
  }

  test::FakeClock mClock;
  Model mModel{kLimits};
  std::unique_ptr<MetadataState> mLeader;
};

TEST_F(MetadataModelTest, EveryLeaderServesWhatWasAcknowledgedAndADeposedOneChangesNothing) {
  for (const unsigned int seed : test::Seeds(3)) {
    test::RandomSteps random(seed);
    mLeader = NewLeader();
    for (int i = 0; i < 150 && !HasFailure(); ++i) {
      mClock.SleepFor(std::chrono::seconds(random.Number(3)));
      if (random.OneIn(15) && !mModel.mApplications.contains("b")) {  // as a registration at a node leaves it
        mRaw->Create("/vyn/apps/b", "{}");
        mModel.mApplications["b"] = {};
      }
      if (random.OneIn(20)) {
        mLeader->ExtendHeartbeatDeadlines(2s);
        mModel.ExtendHeartbeatDeadlines(2s);
      }
      std::unique_ptr<MetadataState> deposed;
      if (random.OneIn(5)) {
        deposed = NewLeader();
        mLeader = NewLeader();
      }
      TryOne(random, deposed.get());
      if (i % 10 == 9) {
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

TEST_F(MetadataStoreTest, ALeadershipBeginsWithWhatOthersHaveLeft) {
  {
    MetadataState state;
    ASSERT_EQ(state.Load(), 0U);
    for (const std::uint32_t id : {1U, 2U}) {
      ASSERT_EQ(state.NewVariable("app", id, 1), 0U);
      ASSERT_EQ(state.SetBlocks(Blocks("app", id, 0, 1)), 0U);
    }
  }
  const std::vector<std::pair<std::string, std::string>> records = {
      {"app/1.0-0", RecordHeader(RecordState::kNew, 1, 0)},  // a second record of the number, on either side
      {"app/2.9-9", RecordHeader(RecordState::kNew, 1, 0)},
      {"app/3.1-3", "no header"},
      {"app/4.1-4", RecordHeader(RecordState::kReady, 1, 1) + "no list"},
      {"app/5.1-5", RecordHeader(RecordState::kReady, 1, 2, "1-5")},  // its second piece is missing
      {"app/6.1-6", RecordHeader(RecordState::kNew, 1, 0)},
      {"app/6.1-6/1-7.1", "a piece of a list that was never completed"},
      {"app/7.1-7", R"({"state":"sold","blockNum":1,"pieces":1,"list":""})"},
      {"odd", R"({"heartbeat":"yes"})"},
      {"half", R"({"removed":true})"},  // a leader has ended while it removed the application
      {"half/3.1-1", RecordHeader(RecordState::kNew, 1, 0)}};
  for (const auto& [path, text] : records) {
    mRaw->Create("/vyn/apps/" + path, text);
  }
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  tessel::BroadcastBlockInfo info;
  for (const std::uint32_t id : {1U, 2U}) {
    EXPECT_EQ(next.GetVariable("app", id, info), 0U) << id;
  }
  for (const std::uint32_t id : {3U, 4U, 5U, 7U}) {
    EXPECT_EQ(next.GetVariable("app", id, info), kStatusUnknownVariable) << id;
  }
  EXPECT_EQ(next.GetVariable("app", 6, info), kStatusNotReady);
  EXPECT_TRUE(Entries("2").size() == 1 && Entries("2")[0].application == "half")
      << "no blocks were given back";
  EXPECT_TRUE(next.Silent(0ms).empty());
  EXPECT_EQ(next.RemoveVariable("app", 6), 0U);
  EXPECT_EQ(mRaw->Children("/vyn/apps/app").size(), 6U);
  EXPECT_EQ(mRaw->Children("/vyn/apps"), (std::vector<std::string>{"app", "odd"}));

  for (std::uint32_t id = 10; id < 120; ++id) {  // more than one transaction deletes
    ASSERT_EQ(next.NewVariable("app", id, 1), 0U);
  }
  mRaw->Create("/vyn/apps/app/token", "{}");
  EXPECT_EQ(next.RemoveApplication("app"), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));

  MetadataState small({.variables = 3, .blocks = 10});
  ASSERT_EQ(small.Load(), 0U);
  for (int time = 0; time < 2; ++time) {  // what was removed counts no more
    EXPECT_EQ(small.NewVariable("app", 1, 6), 0U);
    EXPECT_EQ(small.RemoveVariable("app", 1), 0U);
  }
}

TEST_F(MetadataStoreTest, ANumberIsUsedAgainWhenTheLiveNodesHaveForgottenIt) {
  MetadataState state;
  ASSERT_EQ(state.Load(), 0U);
  ASSERT_EQ(state.NewVariable("app", 1, 2), 0U);
  ASSERT_EQ(state.SetBlocks(Blocks("app", 1, 0, 2, 2)), 0U);
  ASSERT_EQ(state.RemoveVariable("app", 1), 0U);
  ASSERT_TRUE(Entries("1").size() == 1 && Entries("2").size() == 1);
  VariableRecord record;
  ASSERT_EQ(ReadVariableRecord(Entries("2")[0].variablePath, record), RecordRead::kRead);
  EXPECT_EQ(record.blocks.bmIds, Blocks("app", 1, 0, 2).bmIds) << "the node still learns what to free";

  mRaw->Create("/mf/node/1", "");  // node 2 is down
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  std::atomic<bool> asked{false};
  const test::ZookeeperCalls calls([&](const test::ZookeeperCall& call) {
    const bool first = call.path.starts_with("/vyn/reclaim/1/") && !asked.exchange(true);
    return first ? ZCONNECTIONLOSS : call.make();
  });
  std::jthread node([&] {
    EXPECT_TRUE(test::WaitUntil([&] { return asked.load(); }));
    mRaw->Delete("/vyn/reclaim/1/" + mRaw->Children("/vyn/reclaim/1").at(0));
  });
  EXPECT_EQ(next.NewVariable("app", 1, 1), 0U);
  EXPECT_TRUE(Entries("1").empty()) << "the node was waited for";
}

TEST_F(MetadataStoreTest, WithoutAnAnswerNothingIsWrittenOrTheLeadershipEnds) {
  constexpr std::uint32_t kUnanswered = kStatusUnanswered;
  const std::uint32_t over = MetadataStore::kStatusLeadershipLost;
  std::vector<std::string> known;
  struct Case {
    const char* function;
    int result;
    std::function<std::uint32_t(MetadataState& state)> call;
    std::uint32_t status;
  };
  const auto beat = [](auto& state) { return state.HeartBeat("odd"); };
  const auto end = [](auto& state) { return state.RemoveApplication("app"); };
  const auto make = [](auto& state) { return state.NewVariable("app", 2, 1); };
  for (const Case& c :
       {Case{"DoDlZooGet", ZCONNECTIONLOSS, beat, kUnanswered},
        Case{"DoDlZooGet", ZNOAUTH, beat, kStatusStore},
        Case{"DoDlZooGet", ZOPERATIONTIMEOUT, [&](auto& state) { return state.Known({"odd"}, known); },
             kUnanswered},
        Case{"DoDlZooGet", ZCONNECTIONLOSS, [](auto& state) { return state.RemoveVariable("app", 1); },
             kUnanswered},
        Case{"DoDlZooGetChildren", ZOPERATIONTIMEOUT, end, kUnanswered},
        Case{"DoDlZooExists", ZOPERATIONTIMEOUT, end, kUnanswered},
        Case{"DoDlZooMulti", ZNOAUTH, make, kStatusStore}, Case{"DoDlZooMulti", ZCONNECTIONLOSS, make, over},
        Case{"DoDlZooMulti", ZINVALIDSTATE, end, over}}) {
    SCOPED_TRACE(std::string(c.function) + std::to_string(c.result));
    MetadataState state;
    ASSERT_EQ(state.Load(), 0U);
    ASSERT_EQ(state.NewVariable("app", 1, 1), 0U);
    ASSERT_EQ(state.SetBlocks(Blocks("app", 1, 0, 1)), 0U);
    std::atomic<bool> done{false};
    std::jthread behind;
    {
      const test::ZookeeperCalls calls([&](const test::ZookeeperCall& call) {
        if (call.function != c.function || done.exchange(true)) {
          return call.make();
        }
        if (c.status == over) {  // made, and its answer is lost, while another write waits behind it
          call.make();
          behind = std::jthread([&] { EXPECT_EQ(state.NewVariable("app", 3, 1), over); });
          std::this_thread::sleep_for(50ms);
        }
        return c.result;
      });
      EXPECT_EQ(c.call(state), c.status);
    }
    EXPECT_TRUE(done);
    behind = {};
    EXPECT_EQ(state.RemoveVariable("app", 9), c.status == over ? over : 0);
  }
  for (const auto& [function, result, status] :
       {std::tuple("DoDlZooCreate", int{ZNOAUTH}, kStatusStore),
        std::tuple("DoDlZooExists", int{ZCLOSING}, kUnanswered),
        std::tuple("DoDlZooGetChildren", int{ZCONNECTIONLOSS}, kUnanswered),
        std::tuple("DoDlZooGet", int{ZCONNECTIONLOSS}, kUnanswered)}) {
    const test::ZookeeperCalls calls(
        [function = std::string(function), result = result](const test::ZookeeperCall& call) {
          return call.function == function ? result : call.make();
        });
    EXPECT_EQ(MetadataState().Load(), status) << function;
  }
}

}  // namespace
}  // namespace vyn::services
