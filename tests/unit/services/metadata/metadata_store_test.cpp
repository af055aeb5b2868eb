// What the metadata service remembers: random operations against a model of it, also on a leader that has just
// been deposed, and by hand what a neighbour or a lost answer does to the records.

#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/metadata/metadata_state.h"
#include "support/cluster_test.h"
#include "support/fake_clock.h"
#include "support/random_steps.h"
#include "support/zookeeper_calls.h"

#include <set>

namespace vyn::services {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

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

/// The model: what has been acknowledged.
class MetadataModelTest : public MetadataStoreTest {
 protected:
  struct Variable {
    std::uint32_t blockNum = 0;
    bool ready = false;
    std::uint32_t node = 0;
    std::vector<std::string> bmIds;
    std::vector<std::uint64_t> sizes;
  };
  struct Application {
    bool heartbeat = false;
    Clock::time_point lastBeat;
    std::map<std::uint32_t, Variable> variables;
  };
  struct Step {
    std::string name;
    std::function<std::uint32_t(MetadataState& state)> call;
    std::uint32_t status = 0;
    bool writes = false;                 ///< a deposed leader must refuse it
    std::function<void()> done = [] {};  ///< changes the model
  };

  Variable* Find(const std::string& app, std::uint32_t id) {
    const auto application = mModel.find(app);
    if (application == mModel.end()) {
      return nullptr;
    }
    const auto variable = application->second.variables.find(id);
    return variable == application->second.variables.end() ? nullptr : &variable->second;
  }
  void NewLeader() {
    mLeader = std::make_unique<MetadataState>(kLimits);
    ASSERT_EQ(mLeader->Load(), 0U);
    for (auto& [name, application] : mModel) {
      application.lastBeat = mClock.Now();
    }
  }

  Step New(const std::string& app, std::uint32_t id, std::uint32_t blocks) {
    Step step{"new " + std::to_string(blocks),
              [=](auto& state) { return state.NewVariable(app, id, blocks); }};
    std::uint64_t sum = blocks;
    for (const auto& [number, variable] :
         mModel.contains(app) ? mModel[app].variables : Application().variables) {
      sum += variable.blockNum;
    }
    if (blocks > MetadataStore::kMaxBlocks) {
      step.status = kStatusTooLarge;
    } else if (const Variable* variable = Find(app, id)) {
      step.status = variable->blockNum == blocks ? 0 : kStatusVariableExists;
    } else if (sum > kLimits.blocks ||
               (mModel.contains(app) && mModel[app].variables.size() == kLimits.variables)) {
      step.status = kStatusLimit;
    } else {
      step.writes = true;
      step.done = [=, this] { mModel[app].variables[id].blockNum = blocks; };
    }
    return step;
  }
  Step Set(const std::string& app, std::uint32_t id, const std::shared_ptr<Blocks>& info) {
    Step step{"set " + std::to_string(info->bmIds.size()),
              [=](auto& state) { return state.SetBlocks(*info); }};
    Variable* variable = Find(app, id);
    if (variable == nullptr) {
      step.status = kStatusUnknownVariable;
    } else if (variable->blockNum != info->bmIds.size()) {
      step.status = kStatusInvalidRequest;
    } else if (variable->ready) {
      step.status =
          variable->bmIds == info->bmIds && variable->sizes == info->sizes ? 0 : kStatusVariableExists;
    } else {
      step.writes = true;
      step.done = [=] { *variable = {variable->blockNum, true, info->nodeId, info->bmIds, info->sizes}; };
    }
    return step;
  }
  Step Add(const std::string& app, std::uint32_t id, const std::shared_ptr<Blocks>& info) {
    Step step{"add " + std::to_string(info->bmIds.size()),
              [=](auto& state) { return state.AddBlocks(*info); }};
    Variable* variable = Find(app, id);
    if (variable == nullptr) {
      step.status = kStatusUnknownVariable;
      return step;
    }
    auto changed = *variable;
    const std::set<std::string> known(changed.bmIds.begin(), changed.bmIds.end());
    for (std::size_t i = 0; i < info->bmIds.size(); ++i) {
      if (!known.contains(info->bmIds[i])) {
        changed.bmIds.push_back(info->bmIds[i]);
        changed.sizes.push_back(info->sizes[i]);
      }
    }
    if ((variable->ready && variable->node != info->nodeId) || info->bmIds.size() > variable->blockNum ||
        changed.bmIds.size() > variable->blockNum) {
      step.status = kStatusInvalidRequest;
    } else {
      step.writes = true;
      changed.ready = true;
      changed.node = info->nodeId;
      step.done = [=] { *variable = changed; };
    }
    return step;
  }
  Step Remove(const std::string& app, std::uint32_t id) {
    Step step{"remove", [=](auto& state) { return state.RemoveVariable(app, id); }};
    if (const Variable* variable = Find(app, id)) {
      step.writes = true;
      step.done = [=, this, ready = variable->ready, owner = variable->node] {
        mModel[app].variables.erase(id);
        for (const std::uint32_t node : {1U, 2U}) {
          if (ready) {
            mEntries.insert({node, app, id, node == owner});
          }
        }
      };
    }
    return step;
  }
  Step End(const std::string& app) {
    return {"end", [=](auto& state) { return state.RemoveApplication(app); }, 0, true,
            [=, this] { Ended(app); }};
  }
  void Ended(const std::string& app) {
    mModel.erase(app);
    mEntries.insert({1, app, 0, false});
    mEntries.insert({2, app, 0, false});
  }
  Step Expire(const std::string& app, std::chrono::milliseconds timeout) {
    const bool silent = IsSilent(app, timeout);
    Step step{"expire", [=](auto& state) {
                bool removed = !silent;
                const std::uint32_t status = state.Expire(app, timeout, removed);
                EXPECT_EQ(removed, silent && status == 0);
                return status;
              }};
    step.writes = silent;
    step.done = [=, this] { silent ? Ended(app) : void(); };
    return step;
  }
  bool IsSilent(const std::string& app, std::chrono::milliseconds timeout) {
    return mModel.contains(app) && mModel[app].heartbeat && mClock.Now() - mModel[app].lastBeat > timeout;
  }
  Step Beat(const std::string& app, bool alive) {
    const bool known = mModel.contains(app);
    Step step{alive ? "beat" : "farewell", [=](auto& state) { return state.HeartBeat(app, alive); }};
    step.writes = known && alive && !mModel[app].heartbeat;
    step.done = [=, this] {
      if (known && (alive || mModel[app].heartbeat)) {
        mModel[app].heartbeat = true;
        mModel[app].lastBeat = mClock.Now();
      }
    };
    return step;
  }
  Step Read(const std::string& app, std::uint32_t id, std::uint32_t index) {
    const Variable expected = Find(app, id) == nullptr ? Variable() : *Find(app, id);
    const bool complete = expected.ready && expected.bmIds.size() == expected.blockNum;
    Step step{"read", [=](auto& state) {
                tessel::BroadcastBlockInfo info;
                const std::uint32_t status = state.GetVariable(app, id, info);
                EXPECT_TRUE(status != 0 || (info.bmIds == expected.bmIds && info.sizes == expected.sizes &&
                                            info.nodeId == expected.node));
                std::string bmId;
                EXPECT_EQ(state.GetBlock(app, id, index, bmId),
                          index >= expected.blockNum       ? kStatusUnknownVariable
                          : index >= expected.bmIds.size() ? kStatusNotReady
                                                           : 0);
                EXPECT_TRUE(index >= expected.bmIds.size() || bmId == expected.bmIds[index]);
                return status;
              }};
    step.status = Find(app, id) == nullptr ? kStatusUnknownVariable : complete ? 0 : kStatusNotReady;
    return step;
  }
  /// Which applications are known, and which of them are silent.
  Step Names(std::chrono::milliseconds timeout) {
    std::vector<std::string> known;
    std::vector<std::string> silent;
    for (const auto& [name, application] : mModel) {
      known.push_back(name);
      if (IsSilent(name, timeout)) {
        silent.push_back(name);
      }
    }
    return {"names", [=](auto& state) {
              std::vector<std::string> found;
              EXPECT_EQ(state.Known({"a", "b", "never"}, found), 0U);
              EXPECT_EQ(found, known);
              EXPECT_EQ(state.Silent(timeout), silent);
              return 0U;
            }};
  }
  Step Next(test::RandomSteps& random) {
    const std::string app = random.Pick<std::string>({"a", "b"});
    const std::uint32_t id = random.Number(5);
    const Variable* variable = Find(app, id);
    const std::uint32_t blockNum = variable == nullptr ? 2 : variable->blockNum;
    const std::uint32_t node = random.Pick<std::uint32_t>({1, 1, 1, 2, 99});
    const char letter = random.OneIn(4) ? 'c' : 'b';
    const auto timeout = random.Pick<std::chrono::milliseconds>({0ms, 2s});
    switch (random.Number(14)) {
      case 0:
      case 1:
      case 2:
        return New(app, id, random.Pick<std::uint32_t>({0, 1, 3, 3, kLong, MetadataStore::kMaxBlocks + 1}));
      case 3:
      case 4:
        return Set(app, id,
                   std::make_shared<Blocks>(app, id, 0, blockNum + (random.OneIn(6) ? 1 : 0), node, letter));
      case 5:
      case 6: {
        const std::uint32_t first = random.OneIn(2) ? blockNum / 2 : 0;
        return Add(app, id,
                   std::make_shared<Blocks>(app, id, first,
                                            blockNum - first + (random.OneIn(6) ? 1 : 0) -
                                                (random.OneIn(2) && blockNum > first ? 1 : 0),
                                            node, letter));
      }
      case 7:
      case 8:
        return Remove(app, id);
      case 9:
        return random.OneIn(3) ? End(app) : Expire(app, timeout);
      case 10:
        return Beat(app, !random.OneIn(3));
      case 11:
        return Names(timeout);
      default:
        return Read(app, id, random.Pick<std::uint32_t>({0, 1, kLong - 1, kLong}));
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
    decltype(mEntries) told;
    for (const char* node : {"1", "2"}) {
      for (const ReclaimEntry& entry : Entries(node)) {
        told.insert(
            {static_cast<std::uint32_t>(*node - '0'), entry.application, entry.variableId, entry.owner});
        VariableRecord record;
        if (entry.owner && ReadVariableRecord(entry.variablePath, record) != RecordRead::kAbsent) {
          EXPECT_EQ(record.state, RecordState::kDeleted);
          EXPECT_EQ(zookeeper::DeleteTree(entry.variablePath), ZOK);
        }
      }
      EXPECT_EQ(zookeeper::DeleteTree(std::string("/vyn/reclaim/") + node), ZOK);
      mRaw->Create(std::string("/vyn/reclaim/") + node, "");
    }
    EXPECT_TRUE(told == std::exchange(mEntries, {}));
    std::size_t records = 0;
    std::size_t expected = 0;
    for (const std::string& app : mRaw->Children("/vyn/apps")) {
      for (const std::string& name : mRaw->Children("/vyn/apps/" + app)) {
        const std::string path = "/vyn/apps/" + app + "/" + name;
        const Variable* variable = Find(app, static_cast<std::uint32_t>(std::stoul(name)));
        VariableRecord record;
        ASSERT_EQ(ReadVariableRecord(path, record), RecordRead::kRead) << path;
        ASSERT_NE(variable, nullptr) << path;
        EXPECT_EQ(record.state, variable->ready ? RecordState::kReady : RecordState::kNew);
        EXPECT_TRUE(record.blockNum == variable->blockNum && record.blocks.bmIds == variable->bmIds);
        EXPECT_EQ(mRaw->Children(path).size() + 1, std::max(record.pieces, 1U)) << path;
        ++records;
      }
      EXPECT_TRUE(mModel.contains(app)) << app;
    }
    for (const auto& [name, application] : mModel) {
      EXPECT_TRUE(mRaw->Exists("/vyn/apps/" + name)) << name;
      expected += application.variables.size();
    }
    EXPECT_EQ(records, expected);
  }

  test::FakeClock mClock;
  std::unique_ptr<MetadataState> mLeader;
  std::map<std::string, Application> mModel;
  /// Node, application, variable, whether it holds the blocks.
  std::multiset<std::tuple<std::uint32_t, std::string, std::uint32_t, bool>> mEntries;
};

TEST_F(MetadataModelTest, EveryLeaderServesWhatWasAcknowledgedAndADeposedOneChangesNothing) {
  for (const unsigned int seed : test::Seeds(3)) {
    test::RandomSteps random(seed);
    NewLeader();
    for (int i = 0; i < 150 && !HasFailure(); ++i) {
      mClock.SleepFor(std::chrono::seconds(random.Number(3)));
      if (random.OneIn(15) && !mModel.contains("b")) {  // as a registration at a node leaves it
        mRaw->Create("/vyn/apps/b", "{}");
        mModel["b"] = {};
      }
      if (random.OneIn(20)) {
        random.Note("forgive");
        mLeader->Forgive(2s);
        for (auto& [name, application] : mModel) {
          application.lastBeat += 2s;
        }
      }
      std::unique_ptr<MetadataState> deposed;
      if (random.OneIn(5)) {
        random.Note("another leads");
        NewLeader();
        deposed = std::move(mLeader);
        NewLeader();
      }
      const Step step = Next(random);
      random.Note(step.name + " -> " + std::to_string(step.status));
      if (deposed != nullptr) {
        const auto before = Tree("/vyn");
        EXPECT_EQ(step.call(*deposed), step.writes ? MetadataStore::kStatusDeposed : step.status);
        EXPECT_TRUE(Tree("/vyn") == before) << "a deposed leader has written";
      }
      EXPECT_EQ(step.call(*mLeader), step.status);
      step.done();
      if (i % 10 == 9) {
        CheckTree();
      }
    }
    ASSERT_FALSE(HasFailure()) << random.Story();
    for (const char* app : {"a", "b"}) {
      EXPECT_EQ(mLeader->RemoveApplication(app), 0U);
      Ended(app);
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
  const std::uint32_t over = MetadataStore::kStatusDeposed;
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
