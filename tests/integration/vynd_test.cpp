// Real daemons, drivers and executors on loopback addresses, with a real ZooKeeper.

#include "support/fabric/fabric.h"
#include "support/pattern.h"
#include "support/process/command.h"
#include "support/process/vynd_process.h"

namespace vyn::test {
namespace {

constexpr const char* kLeaderPath = "/meta/election/leader_info";

class VyndTest : public testing::Test {
 protected:
  std::unique_ptr<VyndNode> Node(int id = 1, const std::string& nodeList = "127.0.0.1") {
    return std::make_unique<VyndNode>(id, "127.0.0." + std::to_string(id), mUrl, mMetadataPort.Number(),
                                      nodeList);
  }
  /// Gives a client commands with "; " between them. Each is answered "0", or as it says behind " -> ".
  static void Run(BroadcastClient& client, const std::string& commands) {
    const std::regex step("([^;>]+?)(?: -> ([^;]+))?(?:; |$)");
    for (std::sregex_iterator one(commands.begin(), commands.end(), step), end; one != end; ++one) {
      EXPECT_EQ(client.Do((*one)[1]), (*one)[2].matched ? (*one)[2].str() : "0") << (*one)[0];
    }
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

TEST_F(VyndTest, VyndNotifiesItsSupervisorAndRemovesItsZnodesAtItsEnd) {
  const TempDir folder;
  const std::string address = folder / "notify";
  ChildProcess supervisor({"python3", "-c",
                           "import socket, sys\ns = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)\n"
                           "s.bind(sys.argv[1])\nprint('bound', flush=True)\n"
                           "while True: print(s.recv(64).decode(), flush=True)",
                           address});
  EXPECT_EQ(supervisor.Receive(), "bound");
  setenv("NOTIFY_SOCKET", address.c_str(), 1);
  const auto node = Node();
  node->Start();
  EXPECT_EQ(supervisor.Receive(), "READY=1");
  EXPECT_EQ(mTree.Get(kLeaderPath), "127.0.0.1");
  ExpectCommands("timeout 60 ", {{node->Command(), 1, {"runs on ", std::to_string(node->Process().Pid())}}});
  End(*node);
  EXPECT_EQ(supervisor.Receive(), "STOPPING=1");
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
  Run(driver, "register app 1 secret; write app 6 5 250000 0 -> 1");  // no room for the last block
  Run(driver, "write app 7 3 250001 5");                              // and none is left of the others
  Run(executor, "register app 0 secret; read app 7 3 5");
  EXPECT_EQ(node->Objects(), 3U);
  node->Process().Kill();
  Run(executor, "again 5");
  node->Start("1M", 5);
  Run(executor, "again 5");
  BroadcastClient late(*node, false);
  Run(late, "register app 0 secret; read app 7 3 5");
  EXPECT_EQ(node->Objects(), 3U);
  // What is freed stays readable to who maps it, and its room is there again.
  Run(driver, "delete app 7");
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 0; }));
  Run(executor, "again 5");
  Run(driver, "write app 8 3 250001 5; complete app");
  EXPECT_TRUE(WaitUntil([&] { return !std::filesystem::exists(node->Pool() + "/app"); }));

  // An application that has begun to send heartbeats and falls silent gives its memory back.
  Run(late, "register quiet 1 secret; write quiet 1 1 4096 0");
  Run(driver, "register beating 1 secret; write beating 1 2 4096 0; beat beating");
  EXPECT_EQ(node->Objects(), 3U);
  driver.Process().Kill();
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 1; }));
  EXPECT_FALSE(mTree.Exists("/vyn/apps/beating"));
  EXPECT_TRUE(mTree.Exists("/vyn/apps/quiet")) << "it never sent a heartbeat";
}

TEST_F(VyndTest, ANodeRefusesAWrongTokenForAnApplicationOfAnotherNode) {
  const auto first = Node(1);
  const auto second = Node(2);
  first->Start();
  second->Start();
  BroadcastClient driver(*first, true);
  Run(driver, "register app 1 secret");
  FabricClient outsider(second->Home());
  EXPECT_EQ(outsider.Ask("create 2 app guessed"), "-13");
  EXPECT_EQ(outsider.Ask("create 2 app secret"), "0");
}

TEST_F(VyndTest, AFollowerServesWhatAKilledLeaderAcknowledged) {
  std::vector<std::unique_ptr<VyndNode>> nodes;
  for (int id = 1; id <= 3; ++id) {
    nodes.push_back(Node(id, "127.0.0.1,127.0.0.2,127.0.0.3"));
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
  Run(driver, "register app 1 secret; write app 1 2 50000 3");
  Run(neighbour, "register app 1 secret; write app 3 2 50000 3");
  Run(executor, "register app 0 secret; read app 3 2 3");
  const auto copies = [&] {
    const std::filesystem::directory_iterator folder(reader.Pool() + "/.node");
    return std::distance(begin(folder), end(folder));
  };
  EXPECT_EQ(copies(), 2);

  dead.Process().Kill();
  Run(driver, "write app 2 1 50000 4");  // a create begun while nobody leads finds the next leader
  EXPECT_NE(mTree.Get(kLeaderPath), leader);
  Run(driver, "delete app 3");  // what goes while its owner is down goes from the other nodes at once
  EXPECT_TRUE(WaitUntil([&] { return copies() == 0; }));
  Run(executor, "again 3; read app 1 2 3");

  // The application ends while the node is down: it gives its share back when it returns.
  EXPECT_TRUE(std::filesystem::exists(dead.Pool() + "/app"));
  Run(driver, "complete app");
  EXPECT_TRUE(WaitUntil([&] { return writer.Objects() == 0; }));
  Run(executor, "again 3");
  dead.Start();
  EXPECT_FALSE(std::filesystem::exists(dead.Pool() + "/app"));
}

TEST_F(VyndTest, VynctlPutsGetsAndRemovesFiles) {
  const auto node = Node();
  node->Start();
  const TempDir folder;
  folder.Write("in", Pattern(300001, 4));
  folder.Write("wide", std::string(65 << 20, 'w'));
  folder.Write("token", "t\n");
  folder.Write("warned", ReadFile(node->Home() + "/conf/vyn.conf") + "x\n");
  const std::string shell =
      "cd " + folder.Path() + "; export PATH=" VYN_STAGE_DIR "/bin:$PATH VYN_HOME=" + node->Home() + "; ";
  // Ends a command in the middle of its work; `begun` tells when it has begun.
  const auto interrupted = [](const std::string& command, const std::string& begun,
                              const std::string& signal) {
    return command + " & pid=$!; for i in $(seq 300); do " + begun + " && break; sleep 0.1; done; kill -" +
           signal + " $pid; wait $pid";
  };
  ExpectCommands(
      shell,
      {{"vynctl --token t --json put app 5 in --block-size 100K", 0, {"\"blocks\": 3"}},
       {"vynctl --token t get app 5 -o out && cmp in out"},
       // Behind what a file has already; the token not on the command line.
       {"printf x > out; vynctl --token-file token get app 5 >> out; (printf x; cat in) | cmp - out"},
       // A member tells its status a moment after it has begun to lead.
       {"for i in $(seq 300); do vynctl status --json | grep alive && break; sleep 0.1; done"},
       {"vynctl status --json",
        0,
        {"\"leader\": \"127.0.0.1\"", "\"bytes\": 300001", "\"name\": \"app\"", "\"live\": true"}},
       // What exists stays as it is, and what a put could not finish goes.
       {"vynctl --token t put app 5 in --block-size 100K", 1},
       {"vynctl --token t put app 6 wide", 1},
       {interrupted("head -c 40M wide > long; vynctl --token t put app 7 long --block-size 4K",
                    "vynctl app ls --json | grep -q '\"id\": 7'", "INT") +
        "; code=$?; [ $code = 130 ] || { [ $code = 0 ] && vynctl rm app 7; }"},  // it may have been quicker
       {"vynctl app ls --json", 0, {"\"id\": 5", "!\"id\": 6", "!\"id\": 7"}}});
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 3; }));
  for (const char* path : {"/mf/node/stranger", "/vyn/nodes/stranger", "/vyn/nodes/9"}) {
    mTree.Create(path, R"({"host":7})");
  }
  ExpectCommands(shell, {{"vynctl status"},  // strangers' znodes are passed over
                         {interrupted("mkfifo unread; vynctl --token t get app 5 > unread",
                                      "exec 4<unread; head -c 1 <&4 >/dev/null", "TERM"),
                          143,
                          {"interrupted\n"}},
                         {"vynctl --token t verify app 5 --json", 0, {"\"blocks\": 3", "\"right\": true"}},
                         {"vynctl --token wrong verify app 5", 1, {"wrong token"}},
                         {"vynctl --token t verify app 6", 1, {"no such variable"}},
                         {"printf old > out; vynctl --token wrong get app 5 -o out", 1},
                         {"cat out", 0, {"old"}},
                         {"VYN_LOG_STDERR=WARN vynctl rm app 5", 0, {" warning ["}},
                         {"vynctl --token t --json get app 5 -o out", 1, {"\"status\": 2140011", "! ["}},
                         {"vynctl app rm app --wait"},
                         {"vynctl app ls --json", 0, {"!\"name\""}},
                         {"vynctl put app --json", 2, {"\"exitCode\": 2"}},
                         {"vynctl --home missing app ls", 1, {"!real path"}},
                         {"vynctl app ls --json > /dev/full", 1, {"cannot be written"}},
                         {"vynctl app ls --json >&-", 1, {"cannot be written"}},
                         {"vynctl node forget 1", 1, {"is running"}},
                         {"vynctl node forget 9 && ! vynctl node forget 9"},
                         {"vynctl conf check --tls", 1},
                         {"vynctl --json conf check warned", 0, {"\"warning\": true"}}});
  EXPECT_EQ(node->Objects(), 0U);
  // It takes over a file without errors only, and goes on in any case.
  const auto reloads = [&](const std::string& line, const std::string& answer) {
    std::ofstream(node->Home() + "/conf/vyn.conf", std::ios::app) << line;
    node->Process().Signal(SIGUSR1);
    node->Process().Signal(SIGHUP);
    return WaitUntil(
        [&] { return RunCommand("grep -q '" + answer + "' " + node->Home() + "/logs/vynd.*").status == 0; });
  };
  EXPECT_TRUE(reloads("vyn.log.level=DEBUG\n", "Reloaded: log level DEBUG"));
  EXPECT_TRUE(reloads("vyn.log.level=LOUD\n", "Nothing is reloaded"));
  End(*node);
  ExpectCommands(shell, {{"vynctl status", 2, {"LEADER  none"}},
                         {"vynctl put app 9 in", 1, {"no metadata leader"}},
                         {"vynctl put a.b 9 in", 2, {"1 to 255 letters"}},
                         {"vynctl put app 9 unread", 1, {"no regular file"}},
                         {"vynctl frobnicate", 2, {"frobnicate"}},
                         {"vynctl", 2, {"--help lists them"}}});
}

}  // namespace
}  // namespace vyn::test
