// Real daemons, drivers and executors on loopback addresses, with a real ZooKeeper.

#include "support/command.h"
#include "support/vynd_process.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

namespace vyn::test {
namespace {

constexpr const char* kLeaderPath = "/meta/election/leader_info";

class VyndTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gServer = std::make_unique<ZookeeperServer>(); }
  static void TearDownTestSuite() { gServer.reset(); }

  std::unique_ptr<VyndNode> Node(int id = 1, const std::string& nodeList = "127.0.0.1") {
    return std::make_unique<VyndNode>(id, "127.0.0." + std::to_string(id), mUrl, mMetadataPort.Number(),
                                      nodeList);
  }
  CommandResult Vynctl(const VyndNode& node, const std::string& arguments) {
    return RunCommand(VYN_STAGE_DIR "/bin/vynctl --home " + node.Home() + " " + arguments);
  }

  static inline std::unique_ptr<ZookeeperServer> gServer;
  const std::string mUrl = gServer->NewRoot();
  const ReservedPort mMetadataPort;
};

void End(ChildProcess& daemon, int code = 0) {
  daemon.Signal(SIGTERM);
  EXPECT_EQ(daemon.Wait(std::chrono::seconds(60)), code);
}

TEST_F(VyndTest, RefusesToStartWithEveryComplaint) {
  const auto node = Node();
  const std::string conf = node->Home() + "/conf/vyn.conf";
  const std::string good = ReadFile(conf);
  std::ofstream(conf) << good << "vyn.tuning.rpc.server.port=17\nvyn.zookeeper.session.timeout=6000\n";
  std::string command;
  for (const std::string& word : node->Command()) {
    command += word + " ";
  }
  CommandResult run = RunCommand("timeout 60 " + command);
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.output.find("vyn.tuning.rpc.server.port"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("vyn.zookeeper.session.timeout"), std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("READY"), std::string::npos);

  // With every switch on, a warning and a refused value too: all of it at once.
  std::ofstream(conf) << good
                      << "vyn.tessel.rpc.enableTLS=true\nvyn.zookeeper.security.enable=true\nno separator\n"
                      << "vyn.tuning.rpc.server.port=17\n";
  run = RunCommand("timeout 60 " + command);
  EXPECT_EQ(run.status, 1);
  for (const char* part : {"vyn.tessel.rpc.tls.ca.cert.path", "vyn.zookeeper.security.", "warning: no \"=\"",
                           "vyn.tuning.rpc.server.port"}) {
    EXPECT_NE(run.output.find(part), std::string::npos) << part << "\n" << run.output;
  }
}

TEST_F(VyndTest, OneRunsOnAHomeAndEndsOrderly) {
  const auto node = Node();
  node->Start();
  std::string command;
  for (const std::string& word : node->Command()) {
    command += word + " ";
  }
  const CommandResult second = RunCommand("timeout 60 " + command);
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.output.find("process " + std::to_string(node->Process().Pid())), std::string::npos)
      << second.output;

  RawZookeeper tree(mUrl);
  EXPECT_EQ(tree.Get(kLeaderPath), "127.0.0.1");
  EXPECT_TRUE(tree.Exists("/mf/node/1"));
  End(node->Process());
  EXPECT_FALSE(tree.Exists(kLeaderPath));
  EXPECT_FALSE(tree.Exists("/mf/node/1"));
  EXPECT_FALSE(tree.Exists("/mf/capacity/1"));
  node->Start();  // and again at once
  End(node->Process());
}

TEST_F(VyndTest, TellsItsSupervisor) {
  const TempDir folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s/notify", folder.Path().c_str());
  const int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(notify, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  VyndNode node(1, "127.0.0.1", mUrl, mMetadataPort.Number(), "127.0.0.1",
                {"env", std::string("NOTIFY_SOCKET=") + address.sun_path});
  const auto said = [&] {
    char text[64] = {};
    const timeval limit{60, 0};
    setsockopt(notify, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    const ssize_t length = recv(notify, text, sizeof(text), 0);
    return length < 0 ? std::string("nothing") : std::string(text, static_cast<std::size_t>(length));
  };
  node.Start();
  EXPECT_EQ(said(), "READY=1");
  End(node.Process());
  EXPECT_EQ(said(), "STOPPING=1");
  close(notify);
}

TEST_F(VyndTest, EndsWhenZookeeperDoesNotAnswer) {
  ZookeeperServer own;
  const VyndNode unused(7, "127.0.0.7", mUrl, mMetadataPort.Number(), "127.0.0.7");
  VyndNode node(1, "127.0.0.1", own.NewRoot(), mMetadataPort.Number(), "127.0.0.1");
  node.Start();
  own.Freeze();
  const auto begin = std::chrono::steady_clock::now();
  End(node.Process(), 3);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  own.Thaw();
}

TEST_F(VyndTest, BlocksAndMappingsOutliveAKilledDaemon) {
  const auto node = Node();
  node->Start();
  BroadcastClient driver(*node, true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 7 3"), "0");
  ASSERT_EQ(driver.Do("fill app 7 3 100001 5"), "0");
  BroadcastClient executor(*node, false);
  ASSERT_EQ(executor.Do("register app 0 secret"), "0 1");
  ASSERT_EQ(executor.Do("fetch app 7 3"), "0");
  ASSERT_EQ(executor.Do("look app 7 3 5"), "0 1");

  node->Process().Kill();
  EXPECT_EQ(executor.Do("again 5"), "0 1");
  node->Start();
  EXPECT_EQ(executor.Do("again 5"), "0 1");
  BroadcastClient late(*node, false);
  EXPECT_EQ(late.Do("register app 0 secret"), "0 1");
  EXPECT_EQ(late.Do("fetch app 7 3"), "0");
  EXPECT_EQ(late.Do("look app 7 3 5"), "0 1");
  EXPECT_EQ(node->Objects(), 3U);

  // What is freed stays readable to who maps it, and its room is there again.
  EXPECT_EQ(driver.Do("delete app 7"), "0");
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 0; }));
  EXPECT_EQ(executor.Do("again 5"), "0 1");
  EXPECT_EQ(driver.Do("complete app"), "0");
  EXPECT_TRUE(WaitUntil([&] { return !std::filesystem::exists(node->Pool() + "/app"); }));
  End(node->Process());
}

TEST_F(VyndTest, AWrongTokenIsRefusedOnEveryNode) {
  const auto first = Node(1);
  const auto second = Node(2);
  first->Start();
  second->Start();
  BroadcastClient driver(*first, true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  for (const VyndNode* node : {first.get(), second.get()}) {
    BroadcastClient stranger(*node, false);
    EXPECT_NE(stranger.Do("register app 0 guessed").substr(0, 2), "0 ");
    BroadcastClient executor(*node, false);
    EXPECT_EQ(executor.Do("register app 0 secret"), "0 1");
  }
  EXPECT_FALSE(RawZookeeper(mUrl).Get("/vyn/apps/app/token").find("secret") != std::string::npos);

  // Nor can the fabric's own doors give a name another token, on a node that does not know the application
  // yet.
  ChildProcess outsider({VYN_TEST_PROGRAM_DIR "/fabric_client", VYN_STAGE_DIR "/lib/mf/libbmclient.so"});
  ASSERT_EQ(driver.Do("register other 1 secret"), "0 1");
  ASSERT_EQ(outsider.Ask("init " + second->Home() + " 0"), "0");
  EXPECT_EQ(outsider.Ask("create 2 other guessed"), std::to_string(-EACCES));
  EXPECT_EQ(outsider.Ask("create 2 other secret"), "0");
  EXPECT_EQ(outsider.Ask("create 2 other guessed"), std::to_string(-EACCES));
  const std::string log = second->Log();
  const std::string refused = "[register_application][other][FAILED]";
  const std::size_t once = log.find(refused);
  EXPECT_NE(once, std::string::npos);
  EXPECT_NE(log.find(refused, once + 1), std::string::npos) << "also when the node knows the application";
}

TEST_F(VyndTest, OrdinaryUsersMeetByTheTokenAlone) {
  const auto user = [](int id) -> std::vector<std::string> {
    const std::string number = std::to_string(id);
    return {"setpriv", "--reuid=" + number, "--regid=" + number, "--clear-groups", "--pdeathsig", "KILL"};
  };
  const auto can = [&](int id, const std::string& command) {
    std::string all;
    for (const std::string& word : user(id)) {
      all += word + " ";
    }
    return RunCommand(all + command).status == 0;
  };
  if (geteuid() != 0 || !can(65534, "test -x " VYN_STAGE_DIR "/bin/vynd")) {
    GTEST_SKIP() << "needs root, and a build that other users can run";
  }
  VyndNode node(1, "127.0.0.1", mUrl, mMetadataPort.Number(), "127.0.0.1", user(65534));
  const std::string places = node.Home() + " " + node.Pool();
  ASSERT_EQ(RunCommand("chmod 755 " + node.Home() + "/.. && chown -R 65534:65534 " + places).status, 0);
  node.Start();
  BroadcastClient driver(node.Home(), true, user(65533));
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 1 2"), "0");
  ASSERT_EQ(driver.Do("fill app 1 2 5000 3"), "0");
  BroadcastClient executor(node.Home(), false, user(65532));
  EXPECT_NE(executor.Do("register app 0 guessed").substr(0, 2), "0 ");
  EXPECT_NE(executor.Do("look app 1 2 3"), "0 1");
  EXPECT_EQ(executor.Do("register app 0 secret"), "0 1");
  EXPECT_EQ(executor.Do("fetch app 1 2"), "0");
  EXPECT_EQ(executor.Do("look app 1 2 3"), "0 1");
  EXPECT_TRUE(can(65534, "ls " + node.Pool() + "/app"));
  EXPECT_FALSE(can(65532, "ls " + node.Pool() + "/app"));
  End(node.Process());
}

TEST_F(VyndTest, AFullPoolIsAClearErrorAndLeaksNothing) {
  const auto node = Node();
  node->Start("8M");
  BroadcastClient driver(*node, true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 1 5"), "0");
  EXPECT_EQ(driver.Do("fill app 1 5 2000000 0"), "1") << "the node server refused";
  EXPECT_EQ(node->Objects(), 0U);
  ASSERT_EQ(driver.Do("create app 2 3"), "0");
  EXPECT_EQ(driver.Do("fill app 2 3 2000000 0"), "0");
  EXPECT_EQ(node->Objects(), 3U);
}

TEST_F(VyndTest, ASilentApplicationGivesItsMemoryBack) {
  const auto node = Node();
  node->Start("64M", 15);
  BroadcastClient driver(*node, true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 1 2"), "0");
  ASSERT_EQ(driver.Do("fill app 1 2 4096 0"), "0");
  ASSERT_EQ(driver.Do("beat app"), "0");
  BroadcastClient other(*node, true);
  ASSERT_EQ(other.Do("register quiet 1 secret"), "0 1");
  ASSERT_EQ(other.Do("create quiet 1 1"), "0");
  ASSERT_EQ(other.Do("fill quiet 1 1 4096 0"), "0");
  EXPECT_EQ(node->Objects(), 3U);
  driver.Process().Kill();
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 1; }));
  EXPECT_FALSE(std::filesystem::exists(node->Pool() + "/app"));
  EXPECT_FALSE(RawZookeeper(mUrl).Exists("/vyn/apps/app"));
  EXPECT_TRUE(RawZookeeper(mUrl).Exists("/vyn/apps/quiet")) << "it never sent a heartbeat";
}

TEST_F(VyndTest, AFollowerServesWhatAKilledLeaderAcknowledged) {
  const std::string list = "127.0.0.1,127.0.0.2,127.0.0.3";
  std::vector<std::unique_ptr<VyndNode>> nodes;
  for (int id = 1; id <= 3; ++id) {
    nodes.push_back(Node(id, list));
    nodes.back()->Start();
  }
  RawZookeeper tree(mUrl);
  const std::string leader = tree.Get(kLeaderPath);
  const auto isLeader = [&](int id) { return "127.0.0." + std::to_string(id) == leader; };
  const int leading = isLeader(1) ? 1 : isLeader(2) ? 2 : 3;
  VyndNode& dead = *nodes[leading - 1];
  VyndNode& writer = *nodes[leading % 3];
  VyndNode& reader = *nodes[(leading + 1) % 3];

  BroadcastClient driver(writer, true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  BroadcastClient executor(reader, false);
  ASSERT_EQ(executor.Do("register app 0 secret"), "0 1");
  BroadcastClient lost(dead, false);
  ASSERT_EQ(lost.Do("register app 0 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 1 2"), "0");
  ASSERT_EQ(driver.Do("fill app 1 2 50000 3"), "0");
  ASSERT_EQ(lost.Do("fetch app 1 2"), "0");
  BroadcastClient neighbour(dead, true);
  ASSERT_EQ(neighbour.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(neighbour.Do("create app 3 2"), "0");
  ASSERT_EQ(neighbour.Do("fill app 3 2 50000 3"), "0");
  ASSERT_EQ(executor.Do("fetch app 3 2"), "0");
  ASSERT_EQ(executor.Do("look app 3 2 3"), "0 1");
  const auto copies = [&] {
    const std::filesystem::directory_iterator folder(reader.Pool() + "/.node");
    return std::distance(begin(folder), end(folder));
  };
  EXPECT_EQ(copies(), 2);

  dead.Process().Kill();
  // A create begun while nobody leads finds the next leader.
  EXPECT_EQ(driver.Do("create app 2 1"), "0");
  EXPECT_EQ(driver.Do("fill app 2 1 50000 4"), "0");
  EXPECT_NE(tree.Get(kLeaderPath), leader);
  // What goes while its owner is down goes from the other nodes at once.
  EXPECT_EQ(driver.Do("delete app 3"), "0");
  EXPECT_TRUE(WaitUntil([&] { return copies() == 0; }));
  EXPECT_EQ(executor.Do("again 3"), "0 1");
  EXPECT_EQ(executor.Do("fetch app 1 2"), "0");
  EXPECT_EQ(executor.Do("look app 1 2 3"), "0 1");

  // The application ends while the node is down: it gives its share back when it returns.
  EXPECT_TRUE(std::filesystem::exists(dead.Pool() + "/app"));
  EXPECT_EQ(driver.Do("complete app"), "0");
  EXPECT_TRUE(WaitUntil([&] { return writer.Objects() == 0; }));
  EXPECT_EQ(executor.Do("again 3"), "0 1");
  dead.Start();
  EXPECT_FALSE(std::filesystem::exists(dead.Pool() + "/app"));
  for (const auto& node : nodes) {
    End(node->Process());
  }
}

TEST_F(VyndTest, VynctlMovesFilesInAndOut) {
  const auto node = Node();
  node->Start();
  const TempDir folder;
  std::string contents(300001, 'x');
  for (std::size_t i = 0; i < contents.size(); ++i) {
    contents[i] = static_cast<char>(i * 7 + i / 251);
  }
  folder.Write("in", contents);
  CommandResult run = Vynctl(*node, "--token t --json put app 5 " + folder / "in" + " --block-size 100K");
  ASSERT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("\"blocks\": 3"), std::string::npos) << run.output;
  run = Vynctl(*node, "--token t get app 5 -o " + folder / "out");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(ReadFile(folder / "out") == contents);
  // A member tells its status a moment after it has begun to lead.
  EXPECT_TRUE(WaitUntil([&] {
    run = Vynctl(*node, "status --json");
    return run.output.find("\"status\": \"alive\"") != std::string::npos;
  }));
  EXPECT_EQ(run.status, 0) << run.output;
  for (const char* part : {"\"leader\": \"127.0.0.1\"", "\"status\": \"alive\"", "\"bytes\": 300001",
                           "\"name\": \"app\"", "\"live\": true"}) {
    EXPECT_NE(run.output.find(part), std::string::npos) << part << "\n" << run.output;
  }
  // What exists stays as it is, and what a put could not finish goes.
  run = Vynctl(*node, "--token t put app 5 " + folder / "in" + " --block-size 100K");
  EXPECT_EQ(run.status, 1) << run.output;
  EXPECT_EQ(node->Objects(), 3U);
  EXPECT_EQ(Vynctl(*node, "--token t put app 6 " + folder.Write("wide", std::string(65 << 20, 'w'))).status,
            1);
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 3; }));
  EXPECT_EQ(Vynctl(*node, "app ls --json").output.find("\"id\": 6"), std::string::npos);
  run = RunCommand("exec 3>&1; " VYN_STAGE_DIR "/bin/vynctl --home " + node->Home() +
                   " --token t put app 7 " + folder.Write("long", std::string(40 << 20, 'l')) +
                   " --block-size 4K & pid=$!; for i in $(seq 300); do " VYN_STAGE_DIR "/bin/vynctl --home " +
                   node->Home() +
                   " app ls --json | grep -q '\"id\": 7' && break; sleep 0.1; done; kill -INT $pid; wait "
                   "$pid; echo code $?");
  EXPECT_NE(run.output.find("code"), std::string::npos) << run.output;
  if (run.output.find("interrupted") != std::string::npos) {  // it may have been done already
    EXPECT_NE(run.output.find("code 130"), std::string::npos) << run.output;
    EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 3; }));
  } else {
    EXPECT_EQ(Vynctl(*node, "rm app 7").status, 0);
  }
  run = RunCommand(
      "cd " + folder.Path() + "; mkfifo unread; " VYN_STAGE_DIR "/bin/vynctl --home " + node->Home() +
      " --token t get app 5 > unread & pid=$!; cd " + folder.Path() +
      "; while [ ! -p unread ]; do sleep 0.1; done; exec 4<unread; head -c 1 <&4 >/dev/null; kill $pid; "
      "wait $pid; echo code $?");
  EXPECT_NE(run.output.find("interrupted\ncode 143"), std::string::npos) << run.output;
  // Behind what a file has already; the token not on the command line.
  const std::string token = folder.Write("token", "t\n");
  run = RunCommand("printf '%s' before > " + folder / "appended" + "; exec 1>>" + folder / "appended" + "; " +
                   VYN_STAGE_DIR "/bin/vynctl --home " + node->Home() + " --token-file " + token +
                   " get app 5");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(ReadFile(folder / "appended") == "before" + contents);
  // Strangers' znodes are passed over.
  RawZookeeper(mUrl).Create("/mf/node/stranger", "?");
  RawZookeeper(mUrl).Create("/vyn/nodes/stranger", "?");
  RawZookeeper(mUrl).Create("/vyn/nodes/9", R"({"host":7})");
  for (const char* command : {"status", "status --json"}) {
    run = Vynctl(*node, command);
    EXPECT_EQ(run.status, 0) << run.output;
  }
  folder.Write("no", "old");
  EXPECT_EQ(Vynctl(*node, "--token wrong get app 5 -o " + folder / "no").status, 1);
  EXPECT_EQ(ReadFile(folder / "no"), "old");
  run = Vynctl(*node, "rm app 5");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(Vynctl(*node, "rm app 5").status, 1);
  EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 0; }));
  EXPECT_EQ(Vynctl(*node, "--token t get app 5 -o " + folder / "no").status, 1);
  run = Vynctl(*node, "app rm app");
  EXPECT_EQ(run.status, 0) << run.output;
  run = Vynctl(*node, "app ls --json");
  EXPECT_EQ(run.output.find("\"name\""), std::string::npos) << run.output;
  EXPECT_EQ(Vynctl(*node, "app rm app").status, 1);
  EXPECT_EQ(Vynctl(*node, "put app").status, 2);
  EXPECT_EQ(Vynctl(*node, "conf check").status, 0);
  EXPECT_EQ(Vynctl(*node, "conf check --tls").status, 1);
  run = Vynctl(*node, "--json conf check " +
                          folder.Write("warned", ReadFile(node->Home() + "/conf/vyn.conf") + "x\n"));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("\"warning\": true"), std::string::npos) << run.output;

  // Nobody leads any more.
  End(node->Process());
  run = Vynctl(*node, "status");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("LEADER  none"), std::string::npos) << run.output;
}

}  // namespace
}  // namespace vyn::test
