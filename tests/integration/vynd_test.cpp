// Real daemons, drivers and executors on loopback addresses, with a real ZooKeeper.

#include "support/command.h"
#include "support/fabric.h"
#include "support/pattern.h"
#include "support/test.h"
#include "support/vynd_process.h"

namespace vyn::test {
namespace {

constexpr const char* kLeaderPath = "/meta/election/leader_info";

class VyndTest : public testing::Test {
 protected:
  using Steps = std::vector<std::pair<std::string, std::string>>;

  std::unique_ptr<VyndNode> Node(int id = 1, const std::vector<std::string>& prefix = {},
                                 const std::string& nodeList = "127.0.0.1") {
    return std::make_unique<VyndNode>(id, "127.0.0." + std::to_string(id), mUrl, mMetadataPort.Number(),
                                      nodeList, prefix);
  }
  /// Gives a client commands and compares its answers.
  static void Run(BroadcastClient& client, const Steps& steps) {
    for (const auto& [command, answer] : steps) {
      EXPECT_EQ(client.Do(command), answer) << command;
    }
  }
  /// Starts a daemon that is to refuse. Returns: what it says.
  static std::string Refusal(const VyndNode& node) {
    std::string command = "timeout 60";
    for (const std::string& word : node.Command()) {
      command += " " + word;
    }
    const CommandResult run = RunCommand(command);
    EXPECT_EQ(run.status, 1) << run.output;
    return run.output;
  }
  static void End(VyndNode& node, int code = 0) {
    node.Process().Signal(SIGTERM);
    EXPECT_EQ(node.Process().Wait(), code);
  }

  ZookeeperServer mZookeeper{5000};  // so soon is a killed daemon's session over
  const std::string mUrl = mZookeeper.NewRoot();
  RawZookeeper mTree{mUrl};
  const ReservedPort mMetadataPort;
};

TEST_F(VyndTest, RefusesToStartWithEveryComplaint) {
  const auto node = Node();
  const std::string conf = node->Home() + "/conf/vyn.conf";
  const std::string good = ReadFile(conf);
  const struct {
    std::string lines;
    std::vector<std::string> complaints;
  } rows[] = {{"vyn.tuning.rpc.server.port=17\nvyn.zookeeper.session.timeout=6000\n",
               {"vyn.tuning.rpc.server.port", "vyn.zookeeper.session.timeout"}},
              {"vyn.tessel.rpc.enableTLS=true\nvyn.zookeeper.security.enable=true\nno separator\n",
               {"vyn.tessel.rpc.tls.ca.cert.path", "vyn.zookeeper.security.", "warning: no \"=\""}}};
  for (const auto& row : rows) {
    std::ofstream(conf) << good << row.lines;
    const std::string output = Refusal(*node);
    for (const std::string& complaint : row.complaints) {
      EXPECT_NE(output.find(complaint), std::string::npos) << complaint << "\n" << output;
    }
  }
}

TEST_F(VyndTest, OneRunsOnAHomeTellsItsSupervisorAndEndsOrderly) {
  const TempDir folder;
  sockaddr_un address{AF_UNIX, ""};
  (folder / "notify").copy(address.sun_path, sizeof(address.sun_path) - 1);
  const net::Descriptor notify(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const timeval limit{60, 0};
  setsockopt(notify.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  ASSERT_EQ(bind(notify.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  const auto said = [&] {
    char text[64] = {};
    return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(0, recv(notify.Get(), text, 64, 0))));
  };
  const auto node = Node(1, {"env", std::string("NOTIFY_SOCKET=") + address.sun_path});
  node->Start();
  EXPECT_EQ(said(), "READY=1");
  const std::string second = Refusal(*node);
  EXPECT_NE(second.find("process " + std::to_string(node->Process().Pid())), std::string::npos) << second;
  EXPECT_EQ(mTree.Get(kLeaderPath), "127.0.0.1");
  EXPECT_TRUE(mTree.Exists("/mf/node/1"));
  End(*node);
  EXPECT_EQ(said(), "STOPPING=1");
  for (const char* path : {kLeaderPath, "/mf/node/1", "/mf/capacity/1"}) {
    EXPECT_FALSE(mTree.Exists(path)) << path;
  }
  node->Start();  // and again at once, to end with a ZooKeeper that does not answer
  mZookeeper.Freeze();
  const auto begin = std::chrono::steady_clock::now();
  End(*node, 3);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  mZookeeper.Thaw();
}

TEST_F(VyndTest, BlocksAndMappingsOutliveAKilledDaemon) {
  const auto node = Node();
  node->Start("1M", 5);
  BroadcastClient driver(*node, true);
  BroadcastClient executor(*node, false);
  Run(driver, {{"register app 1 secret", "0 1"},
               {"create app 6 5", "0"},
               {"fill app 6 5 250000 0", "1"},  // no room for the last block, and none is left of the others
               {"create app 7 3", "0"},
               {"fill app 7 3 250001 5", "0"}});
  const Steps read = {{"register app 0 secret", "0 1"}, {"fetch app 7 3", "0"}, {"look app 7 3 5", "0 1"}};
  Run(executor, read);
  EXPECT_EQ(node->Objects(), 3U);
  node->Process().Kill();
  Run(executor, {{"again 5", "0 1"}});
  node->Start("1M", 5);
  Run(executor, {{"again 5", "0 1"}});
  BroadcastClient late(*node, false);
  Run(late, read);
  EXPECT_EQ(node->Objects(), 3U);
  // What is freed stays readable to who maps it, and its room is there again.
  Run(driver, {{"delete app 7", "0"}});
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 0; }));
  Run(executor, {{"again 5", "0 1"}});
  Run(driver, {{"create app 8 3", "0"}, {"fill app 8 3 250001 5", "0"}, {"complete app", "0"}});
  EXPECT_TRUE(WaitUntil([&] { return !std::filesystem::exists(node->Pool() + "/app"); }));

  // An application that has begun to send heartbeats and falls silent gives its memory back.
  BroadcastClient quiet(*node, true);
  Run(quiet, {{"register quiet 1 secret", "0 1"}, {"create quiet 1 1", "0"}, {"fill quiet 1 1 4096 0", "0"}});
  Run(driver, {{"register beating 1 secret", "0 1"},
               {"create beating 1 2", "0"},
               {"fill beating 1 2 4096 0", "0"},
               {"beat beating", "0"}});
  EXPECT_EQ(node->Objects(), 3U);
  driver.Process().Kill();
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 1; }));
  EXPECT_FALSE(mTree.Exists("/vyn/apps/beating"));
  EXPECT_TRUE(mTree.Exists("/vyn/apps/quiet")) << "it never sent a heartbeat";
}

TEST_F(VyndTest, UsersMeetByTheTokenAloneOnEveryNode) {
  const auto can = [](int id, const std::string& command) {
    return RunCommand("setpriv --clear-groups --reuid=" + std::to_string(id) + " " + command).status == 0;
  };
  // Other users need root, and a build that they can run.
  const bool others = geteuid() == 0 && can(65534, "test -x " VYN_STAGE_DIR "/bin/vynd");
  const auto user = [&](int id) {
    const std::vector<std::string> prefix = {"setpriv", "--reuid=" + std::to_string(id), "--clear-groups",
                                             "--pdeathsig", "KILL"};
    return others ? prefix : std::vector<std::string>();
  };
  const auto first = Node(1, user(65534));
  if (others) {
    RunCommand("cd " + first->Home() + " && chmod 755 .. && chown -R 65534 . " + first->Pool());
  }
  const auto second = Node(2);
  first->Start();
  second->Start();
  BroadcastClient driver(first->Home(), true, user(65533));
  Run(driver, {{"register app 1 secret", "0 1"}, {"create app 1 2", "0"}, {"fill app 1 2 5000 3", "0"}});
  for (const VyndNode* node : {first.get(), second.get()}) {
    BroadcastClient executor(node->Home(), false, user(node == first.get() ? 65532 : 0));
    Run(executor, {{"register app 0 guessed", "1 1"},
                   {"look app 1 2 3", "2120013 0"},
                   {"register app 0 secret", "0 1"},
                   {"fetch app 1 2", "0"},
                   {"look app 1 2 3", "0 1"}});
  }
  EXPECT_EQ(can(65534, "ls " + first->Pool() + "/app"), others);
  EXPECT_FALSE(can(65532, "ls " + first->Pool() + "/app"));
  EXPECT_EQ(mTree.Get("/vyn/apps/app/token").find("secret"), std::string::npos);

  // Nor can the fabric's own doors give a name another token, on a node that does not know the application
  // yet.
  FabricClient outsider(second->Home());
  Run(driver, {{"register other 1 secret", "0 1"}});
  EXPECT_EQ(outsider.Ask("create 2 other guessed"), "-13");
  EXPECT_EQ(outsider.Ask("create 2 other secret"), "0");
  EXPECT_EQ(outsider.Ask("create 2 other guessed"), "-13");
  const std::string log = second->Log();
  const std::string refused = "[register_application][other][FAILED]";
  EXPECT_LT(log.find(refused), log.rfind(refused)) << "also when the node knows the application";
}

TEST_F(VyndTest, AFollowerServesWhatAKilledLeaderAcknowledged) {
  std::vector<std::unique_ptr<VyndNode>> nodes;
  for (int id = 1; id <= 3; ++id) {
    nodes.push_back(Node(id, {}, "127.0.0.1,127.0.0.2,127.0.0.3"));
    nodes.back()->Start();
  }
  const std::string leader = mTree.Get(kLeaderPath);
  const auto leading = static_cast<std::size_t>(leader.back() - '1');
  VyndNode& dead = *nodes.at(leading);
  VyndNode& writer = *nodes[(leading + 1) % 3];
  VyndNode& reader = *nodes[(leading + 2) % 3];

  BroadcastClient driver(writer, true);
  BroadcastClient neighbour(dead, true);
  BroadcastClient executor(reader, false);
  BroadcastClient lost(dead, false);
  const Steps look = {{"fetch app 1 2", "0"}, {"look app 1 2 3", "0 1"}};
  Run(driver, {{"register app 1 secret", "0 1"}, {"create app 1 2", "0"}, {"fill app 1 2 50000 3", "0"}});
  Run(executor, {{"register app 0 secret", "0 1"}});
  Run(lost, {{"register app 0 secret", "0 1"}, {"fetch app 1 2", "0"}});
  Run(neighbour, {{"register app 1 secret", "0 1"}, {"create app 3 2", "0"}, {"fill app 3 2 50000 3", "0"}});
  Run(executor, {{"fetch app 3 2", "0"}, {"look app 3 2 3", "0 1"}});
  const auto copies = [&] {
    const std::filesystem::directory_iterator folder(reader.Pool() + "/.node");
    return std::distance(begin(folder), end(folder));
  };
  EXPECT_EQ(copies(), 2);

  dead.Process().Kill();
  // A create begun while nobody leads finds the next leader.
  Run(driver, {{"create app 2 1", "0"}, {"fill app 2 1 50000 4", "0"}});
  EXPECT_NE(mTree.Get(kLeaderPath), leader);
  // What goes while its owner is down goes from the other nodes at once.
  Run(driver, {{"delete app 3", "0"}});
  EXPECT_TRUE(WaitUntil([&] { return copies() == 0; }));
  Run(executor, {{"again 3", "0 1"}});
  Run(executor, look);

  // The application ends while the node is down: it gives its share back when it returns.
  EXPECT_TRUE(std::filesystem::exists(dead.Pool() + "/app"));
  Run(driver, {{"complete app", "0"}});
  EXPECT_TRUE(WaitUntil([&] { return writer.Objects() == 0; }));
  Run(executor, {{"again 3", "0 1"}});
  dead.Start();
  EXPECT_FALSE(std::filesystem::exists(dead.Pool() + "/app"));
}

TEST_F(VyndTest, VynctlMovesFilesInAndOut) {
  const auto node = Node();
  node->Start();
  const TempDir folder;
  folder.Write("in", Pattern(300001, 4));
  folder.Write("wide", std::string(65 << 20, 'w'));
  folder.Write("long", std::string(40 << 20, 'l'));
  folder.Write("token", "t\n");
  folder.Write("old", "old");
  folder.Write("warned", ReadFile(node->Home() + "/conf/vyn.conf") + "x\n");
  const auto shell = [&](const std::string& command) {
    return RunCommand("cd " + folder.Path() +
                      "; export PATH=" VYN_STAGE_DIR "/bin:$PATH VYN_HOME=" + node->Home() + "; " + command);
  };
  struct Row {
    std::string command;
    int status = 0;
    std::vector<std::string> parts = {};  ///< of the output; not in it with "!" in front
  };
  const auto run = [&](const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      const CommandResult result = shell(row.command);
      EXPECT_EQ(result.status, row.status) << row.command << "\n" << result.output;
      for (const std::string& part : row.parts) {
        const bool absent = part[0] == '!';
        EXPECT_EQ(result.output.find(part.substr(absent ? 1 : 0)) == std::string::npos, absent)
            << row.command << "\n"
            << result.output;
      }
    }
  };
  run({{"vynctl --token t --json put app 5 in --block-size 100K", 0, {"\"blocks\": 3"}},
       {"vynctl --token t get app 5 -o out && cmp in out"},
       // Behind what a file has already; the token not on the command line.
       {"printf x > out; vynctl --token-file token get app 5 >> out; (printf x; cat in) | cmp - out"},
       // A member tells its status a moment after it has begun to lead.
       {"for i in $(seq 300); do vynctl status --json | grep alive && break; sleep 0.1; done"},
       {"vynctl status --json",
        0,
        {"\"leader\": \"127.0.0.1\"", "\"status\": \"alive\"", "\"bytes\": 300001"}},
       {"vynctl status --json", 0, {"\"name\": \"app\"", "\"live\": true"}},
       // What exists stays as it is, and what a put could not finish goes.
       {"vynctl --token t put app 5 in --block-size 100K", 1},
       {"vynctl --token t put app 6 wide", 1},
       {"vynctl app ls --json", 0, {"\"id\": 5", "!\"id\": 6"}}});
  EXPECT_EQ(node->Objects(), 3U);
  const std::string interrupted =
      shell(
          "vynctl --token t put app 7 long --block-size 4K & pid=$!; for i in $(seq 300); do vynctl app ls "
          "--json | "
          "grep -q '\"id\": 7' && break; sleep 0.1; done; kill -INT $pid; wait $pid; echo code $?")
          .output;
  if (interrupted.find("interrupted\ncode 130") == std::string::npos) {  // it was done before
    EXPECT_NE(interrupted.find("code 0"), std::string::npos) << interrupted;
    run({{"vynctl rm app 7"}});
  }
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 3; }));
  for (const char* path : {"/mf/node/stranger", "/vyn/nodes/stranger", "/vyn/nodes/9"}) {
    mTree.Create(path, R"({"host":7})");
  }
  run({{"vynctl status"},  // strangers' znodes are passed over
       {"vynctl status --json"},
       {"mkfifo unread; vynctl --token t get app 5 > unread & pid=$!; while [ ! -p unread ]; do sleep 0.1; "
        "done; "
        "exec 4<unread; head -c 1 <&4 >/dev/null; kill $pid; wait $pid; echo code $?",
        0,
        {"interrupted\ncode 143"}},
       {"vynctl --token wrong get app 5 -o old", 1},
       {"vynctl rm app 5"},
       {"vynctl rm app 5", 1},
       {"vynctl --token t get app 5 -o old", 1},
       {"cat old", 0, {"old"}},
       {"vynctl app rm app"},
       {"vynctl app ls --json", 0, {"!\"name\""}},
       {"vynctl app rm app", 1},
       {"vynctl put app", 2},
       {"vynctl conf check"},
       {"vynctl conf check --tls", 1},
       {"vynctl --json conf check warned", 0, {"\"warning\": true"}}});
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 0; }));
  End(*node);
  run({{"vynctl status", 0, {"LEADER  none"}}});
}

}  // namespace
}  // namespace vyn::test
