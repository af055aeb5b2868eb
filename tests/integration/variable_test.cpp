// vyn/variable.h with real daemons, a real ZooKeeper and processes that are stopped and killed.

#include "support/process/command.h"
#include "support/process/vynd_process.h"

namespace vyn::test {
namespace {

/// Two nodes. No address of this machine is a node's, so a driver takes itself to be outside the fabric; an
/// executor is on the node of its home.
class VariableTest : public testing::Test {
 protected:
  VariableTest() {
    mFirst.Start();
    mSecond.Start();
  }
  std::unique_ptr<BroadcastClient> Client(const std::string& where, const std::string& app = "app") {
    auto client = std::make_unique<BroadcastClient>(where == "second" ? mSecond : mFirst, where == "outside");
    EXPECT_EQ(client->Do("register " + app + " 1 secret"), "0");
    return client;
  }
  std::size_t Objects() const { return mFirst.Objects() + mSecond.Objects(); }
  static void Expect(BroadcastClient& client, const std::string& command, const std::string& answer,
                     const std::string& words = "") {
    EXPECT_EQ(client.Do(command), answer) << command << ": " << client.Do("words");
    if (!words.empty()) {
      EXPECT_THAT(client.Do("words"), testing::HasSubstr(words)) << command;
    }
  }

  ZookeeperServer mZookeeper{5000};
  const std::string mUrl = mZookeeper.NewRoot();
  const ReservedPort mPort;
  VyndNode mFirst{2, "127.0.0.2", mUrl, mPort.Number(), "127.0.0.2,127.0.0.3"};
  VyndNode mSecond{3, "127.0.0.3", mUrl, mPort.Number(), "127.0.0.2,127.0.0.3"};
};

TEST_F(VariableTest, EachCallerGetsTheBytesOrTheStatusOfItsFailure) {
  for (const std::string where : {"first", "second", "outside"}) {
    SCOPED_TRACE("written " + where);
    const auto writer = Client(where);
    std::map<std::string, std::unique_ptr<BroadcastClient>> readers;
    for (const char* reader : {"first", "second", "outside"}) {
      readers[reader] = Client(reader);
    }
    const auto all = [&](const std::string& command, const std::string& answer,
                         const std::string& words = "") {
      for (const auto& [name, reader] : readers) {
        SCOPED_TRACE("read " + name);
        Expect(*reader, command, answer, words);
      }
    };
    all("open app 1 5", "2140011", "no such variable: there is no variable 1 of application app");
    Expect(*writer, "make app 1 5000001 5", "0");
    all("open app 1 5", "2140015", "variable 1 of application app is not published yet");
    all("make app 1 9 5", "2140013", "variable 1 of application app exists already: a writer has created");
    writer->Process().Signal(SIGSTOP);
    all("open app 1 5", "2140015");
    writer->Process().Signal(SIGCONT);
    Expect(*writer, "publish", "0");
    Expect(*writer, "still 5", "0");
    Expect(*writer, "publish", "0");
    Expect(*writer, "close", "0");
    all("open app 1 5", "0");
    all("make app 1 9 5", "2140013", "variable 1 of application app exists already");
    all("open other 1 5", "2140005", "application other is not registered in this process");
    const auto other = Client("second", "other");
    Expect(*other, "open other 1 5", "2140011", "variable 1 of application other");
    all("open app 1 5", "0");

    // A freed number. Who has the old bytes keeps them.
    Expect(*writer, "drop app 1", "0");
    Expect(*writer, "drop app 1", "2140011", "no such variable");
    all("still 5", "0");
    Expect(*writer, "make app 1 70000 6", "0");
    all("still 5", "0");
    Expect(*writer, "publish", "0");
    all("open app 1 6", "0");

    Expect(*writer, "make app 2 90000000 6", "2100041", "free on node ");
    Expect(*writer, "words", writer->Do("words"),
           "pool full: variable 2 of application app needs 85.8 MiB, ");
    Expect(*writer, "make app 2 0 6", "2120001", "at least 1 byte");
    Expect(*writer, "make app 2 9000000 6", "0");
    Expect(*writer, "close", "0");
    all("open app 2 6", "2140011");
    Expect(*writer, "drop app 1", "0");
    EXPECT_TRUE(WaitUntil([&] { return Objects() == 0; }));
  }
}

TEST_F(VariableTest, TheNodesFreeTheBlocksOfAKilledWriter) {
  for (const std::string where : {"first", "second", "outside"}) {
    SCOPED_TRACE("written " + where);
    const auto reader = Client("first");
    const auto dead = Client(where);
    const auto late = Client(where);
    Expect(*late, "make app 2 5000001 5", "0");
    Expect(*late, "publish", "0");
    Expect(*dead, "make app 1 5000001 5", "0");
    Expect(*reader, "open app 1 5", "2140015");
    dead->Process().Kill();
    late->Process().Kill();
    EXPECT_TRUE(WaitUntil([&] { return Objects() == 2; }));
    Expect(*reader, "open app 1 5", "2140011");
    Expect(*reader, "open app 2 5", "0");
    Expect(*reader, "drop app 2", "0");
    EXPECT_TRUE(WaitUntil([&] { return Objects() == 0; }));
  }
}

TEST_F(VariableTest, AWriterWhoseNumberIsAnotherWritersPublishesAndRemovesNothing) {
  for (const auto& [before, now] :
       {std::pair("first", "second"), std::pair("outside", "first"), std::pair("second", "outside")}) {
    SCOPED_TRACE(std::string(before) + ", then " + now);
    for (const char* command : {"publish", "close"}) {
      const auto old = Client(before);
      const auto writer = Client(now);
      Expect(*old, "make app 1 5000001 5", "0");
      Expect(*writer, "drop app 1", "0");
      Expect(*writer, "make app 1 5000001 6", "0");
      Expect(*old, command, command == std::string("close") ? "0" : "2140013");
      Expect(*old, "close", "0");
      Expect(*Client("first"), "open app 1 6", "2140015");
      Expect(*writer, "publish", "0");
      Expect(*Client("first"), "open app 1 6", "0");
      Expect(*writer, "drop app 1", "0");
      EXPECT_TRUE(WaitUntil([&] { return Objects() == 0; }));
    }
  }
}

TEST_F(VariableTest, ARestartedNodeFreesTheBlocksOfDeadWritersOnly) {
  const auto first = Client("first");
  Expect(*first, "make app 5 20000001 9", "0");           // leaves the second node more room
  std::vector<std::unique_ptr<BroadcastClient>> writers;  // of the variables 1, 2, 3
  for (const char* make : {"make app 1 5000001 5", "make app 2 5000001 6", "make app 3 5000001 7"}) {
    writers.push_back(Client("second"));
    Expect(*writers.back(), make, "0");
  }
  const auto outside = Client("outside");
  EXPECT_TRUE(WaitUntil([&] {
    outside->Do("close");
    return outside->Do("make app 4 5000001 9") == "0" && mSecond.Objects() == 8;
  }));
  const std::string folder = mSecond.Home() + "/run/unpublished/";
  std::ofstream(folder + "damaged") << R"({"application":"app","id":2,"blocks":["b"]})";
  mSecond.Process().Kill();
  writers[0]->Process().Kill();
  writers[2]->Process().Kill();
  Expect(*first, "drop app 3", "0");
  Expect(*first, "make app 3 5000001 8", "0");  // another writer has the number now
  for (const std::string& name : NamesIn(folder)) {
    if (ReadFile(folder + name).find("\"id\":1,") != std::string::npos) {
      std::filesystem::remove_all(std::filesystem::path(mSecond.Pool()) / "app" / name);  // as by a reboot
    }
  }
  mSecond.Start();
  EXPECT_TRUE(WaitUntil([&] { return mSecond.Objects() == 4; }));
  EXPECT_TRUE(WaitUntil([&] { return Client("first")->Do("open app 1 5") == "2140011"; }));
  Expect(*outside, "publish", "0");
  Expect(*writers[1], "publish", "0");
  Expect(*first, "publish", "0");
  const auto reader = Client("second");
  Expect(*reader, "open app 2 6", "0");
  Expect(*reader, "open app 3 8", "0");
  Expect(*reader, "open app 4 9", "0");
  EXPECT_TRUE(WaitUntil([&] { return NamesIn(folder).empty(); }));
}

TEST_F(VariableTest, VariablesOfTheCFunctionsAndOfTheSparkFunctionsAreTheSame) {
  const auto first = Client("first");
  const auto second = Client("second");
  Expect(*first, "make app 1 5000 3", "0");
  Expect(*second, "read app 1 1 3", "1");
  Expect(*first, "publish", "0");
  Expect(*second, "read app 1 1 3", "0");
  Expect(*first, "write app 2 1 5000 4", "0");
  Expect(*second, "open app 2 4", "0");
  Expect(*Client("outside"), "open app 2 4", "0");
}

TEST_F(VariableTest, VerifyNamesADamagedCopy) {
  const auto writer = Client("first");
  Expect(*writer, "make app 1 5000001 5", "0");
  Expect(*writer, "publish", "0");
  Expect(*Client("second"), "open app 1 5", "0");
  const std::string verify =
      VYN_STAGE_DIR "/bin/vynctl --home " + mFirst.Home() + " --token secret verify app 1 --json";
  ExpectCommands(verify, {{"", 0, {"\"node\": 3", "\"right\": true"}}});
  for (const auto& file : std::filesystem::recursive_directory_iterator(mSecond.Pool())) {
    if (file.is_regular_file() && file.file_size() > 4000000) {
      std::fstream(file.path(), std::ios::in | std::ios::out).seekp(1000).put('?');
    }
  }
  ExpectCommands(verify, {{"", 1, {"\"block\": 0", "the copy is damaged", "\"right\": false"}}});
}

TEST_F(VariableTest, AWrongTokenGetsItsOwnStatusAndMessage) {
  const auto writer = Client("first");
  Expect(*writer, "make app 1 5000 3", "0");
  Expect(*writer, "publish", "0");
  BroadcastClient here(mFirst, false);
  Expect(here, "register app 1 guessed", "1", "wrong token for application app");
  BroadcastClient outside(mFirst, true);
  Expect(outside, "register app 1 guessed", "0");
  Expect(outside, "make app 2 5000 3", "2140007", "wrong token for application app");
  Expect(outside, "open app 1 3", "2140007", "wrong token for application app");
  Expect(*writer, "open app 2 3", "2140011");
}

}  // namespace
}  // namespace vyn::test
