#include "platform/zk_helper/zk_helper.h"

#include "support/zookeeper_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vyn::test {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

int Init(const std::string& url, const VynZookeeperSecurity& security = {}, int connectTimeout = 60,
         int sessionTimeout = 30000) {
  VynZookeeperKeys keys{};
  keys.connectTimeout = connectTimeout;
  return VynZookeeperInit(url.c_str(), sessionTimeout, &security, &keys, "/nowhere");
}

class ZkHelperTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gServer = std::make_unique<ZookeeperServer>(); }
  static void TearDownTestSuite() { gServer.reset(); }

  void SetUp() override { mUrl = gServer->NewRoot(); }
  void TearDown() override { Close(); }

  zhandle_t* Open(int sessionTimeout = 30000) {
    EXPECT_EQ(Init(mUrl, {}, 60, sessionTimeout), ZOK) << VynZookeeperGetLastMessage();
    return VynGetZkHandle();
  }
  void Close() {
    zhandle_t* handle = VynGetZkHandle();
    VynRemoveZkHandle();
    if (handle != nullptr) {
      DoDlZookeeperClose(handle);
    }
  }

  static inline std::unique_ptr<ZookeeperServer> gServer;
  std::string mUrl;
};

/// A watcher that keeps what it is told.
struct Events {
  struct Event {
    zhandle_t* handle;
    int type;
    int state;
    std::string path;
  };
  static void Watch(zhandle_t* handle, int type, int state, const char* path, void* context) {
    auto& self = *static_cast<Events*>(context);
    std::lock_guard lock(self.mMutex);
    self.mEvents.push_back({handle, type, state, path});
  }
  std::size_t Count(int type, const std::string& path) {
    std::lock_guard lock(mMutex);
    return static_cast<std::size_t>(std::count_if(mEvents.begin(), mEvents.end(), [&](const Event& event) {
      return event.type == type && event.path == path;
    }));
  }
  std::mutex mMutex;
  std::vector<Event> mEvents;
};

TEST_F(ZkHelperTest, ValuesAreCutToTheRoomAndNullHasLengthMinusOne) {
  zhandle_t* handle = Open();
  const auto create = [&](const char* path, const char* value, int length) {
    return DoDlZooCreate(handle, path, value, length, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
  };
  ASSERT_EQ(create("/text", "0123456789", 10), ZOK);
  ASSERT_EQ(create("/null", nullptr, -1), ZOK);
  ASSERT_EQ(create("/empty", "", 0), ZOK);
  EXPECT_EQ(create("/text", "", 0), ZNODEEXISTS);
  EXPECT_EQ(create("/no/parent", "", 0), ZNONODE);
  EXPECT_EQ(create("/bad/", "", 0), ZBADARGUMENTS);

  struct Case {
    const char* path;
    int room;
    int length;
    std::string text;
  };
  for (const Case& c : {Case{"/text", 100, 10, "0123456789"}, Case{"/text", 10, 10, "0123456789"},
                        Case{"/text", 4, 4, "0123"}, Case{"/text", 0, 0, ""}, Case{"/null", 4, -1, ""},
                        Case{"/empty", 4, 0, ""}}) {
    std::string buffer(200, '#');
    int length = c.room;
    Stat stat{};
    ASSERT_EQ(DoDlZooGet(handle, c.path, 0, buffer.data(), &length, &stat), ZOK);
    EXPECT_EQ(length, c.length) << c.path << " " << c.room;
    EXPECT_EQ(buffer, c.text + std::string(200 - c.text.size(), '#'));
  }
  Stat stat{};
  EXPECT_EQ(DoDlZooExists(handle, "/text", -1, &stat), ZOK);
  EXPECT_EQ(stat.dataLength, 10);
  char made[6];
  EXPECT_EQ(DoDlZooCreate(handle, "/made-long", "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, made, sizeof(made)), ZOK);
  EXPECT_STREQ(made, "/made");
  String_vector names{};
  ASSERT_EQ(DoDlZooGetChildren(handle, "/", 0, &names), ZOK);
  EXPECT_EQ(names.count, 4);
  EXPECT_EQ(DoDlDeallocateStringVector(&names), 0);
  EXPECT_EQ(DoDlDeallocateStringVector(&names), 0);
  EXPECT_EQ(names.count, 0);
}

TEST_F(ZkHelperTest, ConnectingFailsWithItsCause) {
  EXPECT_LT(Init("name.invalid:2181"), 0);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("name.invalid:2181"));
  const ReservedPort nobody;
  const std::string refused = "127.0.0.1:" + std::to_string(nobody.Number());
  EXPECT_EQ(Init(refused, {}, 1), ZOPERATIONTIMEOUT);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("gave no session within 1 s"));
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("Connection refused"));
  EXPECT_LT(Init(""), 0);
  EXPECT_EQ(VynGetZkHandle(), nullptr);

  ASSERT_EQ(Init(mUrl), ZOK);
  zhandle_t* handle = VynGetZkHandle();
  EXPECT_EQ(Init(mUrl), ZINVALIDSTATE);
  EXPECT_EQ(VynGetZkHandle(), handle);

  // One that is forgotten is in the way until it is closed.
  VynRemoveZkHandle();
  EXPECT_EQ(Init(mUrl, {}, 0), ZINVALIDSTATE);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("the connection before is not closed"));
  std::jthread closer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(DoDlZookeeperClose(handle), ZOK);
  });
  EXPECT_EQ(Init(mUrl), ZOK) << VynZookeeperGetLastMessage();
  EXPECT_NE(VynGetZkHandle(), handle);
}

TEST_F(ZkHelperTest, SecurityNeedsAClientThatHasIt) {
  struct Case {
    const char* strategy;
    int result;
    const char* message;
  };
  // The client of this machine has neither.
  for (const Case& c :
       {Case{"tls", ZUNIMPLEMENTED, "has no TLS"}, Case{"SASL", ZUNIMPLEMENTED, "has no SASL"},
        Case{"plain", ZBADARGUMENTS, "unknown strategy \"plain\""},
        Case{nullptr, ZBADARGUMENTS, "unknown strategy \"\""}}) {
    VynZookeeperSecurity security{};
    security.enable = true;
    security.strategy = c.strategy;
    EXPECT_EQ(Init(mUrl, security), c.result);
    EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr(c.message));
    EXPECT_EQ(VynGetZkHandle(), nullptr);
  }
}

TEST_F(ZkHelperTest, AnUnknownOrClosedHandleIsRefused) {
  zhandle_t* handle = Open();
  Close();
  int length = 0;
  String_vector names{};
  for (zhandle_t* none : {handle, static_cast<zhandle_t*>(nullptr)}) {
    EXPECT_EQ(DoDlZooCreate(none, "/a", "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooDelete(none, "/a", -1), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooExists(none, "/a", 0, nullptr), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooGet(none, "/a", 0, nullptr, &length, nullptr), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooSet(none, "/a", "", 0, -1), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooGetChildren(none, "/", 0, &names), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooWexists(none, "/a", &Events::Watch, nullptr, nullptr), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooWget(none, "/a", nullptr, nullptr, nullptr, &length, nullptr), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooWgetChildren(none, "/", nullptr, nullptr, &names), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZookeeperClose(none), ZINVALIDSTATE);
    EXPECT_EQ(DoDlZooClientId(none).client_id, 0);
  }
  EXPECT_NE(Open(), handle);  // never the same ticket again
}

TEST_F(ZkHelperTest, TheLastMessageIsTheThreadsOwn) {
  zhandle_t* handle = Open();
  EXPECT_EQ(DoDlZooDelete(handle, "/none", -1), ZNONODE);
  const std::string mine = VynZookeeperGetLastMessage();
  EXPECT_THAT(mine, HasSubstr("no node (-101)"));
  std::thread([&] {
    EXPECT_STREQ(VynZookeeperGetLastMessage(), "");
    DoDlZooDelete(handle, "/bad/", -1);
  }).join();
  EXPECT_EQ(VynZookeeperGetLastMessage(), mine);
}

TEST_F(ZkHelperTest, AWatcherMaySetItselfMakeCallsAndClose) {
  struct Follower {
    static void Watch(zhandle_t* handle, int type, int, const char*, void* context) {
      auto& self = *static_cast<Follower*>(context);
      if (type != ZOO_CREATED_EVENT) {
        DoDlZooWexists(handle, "/node", &Follower::Watch, context, nullptr);
        DoDlZooWexists(handle, "/node", &Follower::Watch, context, nullptr);
        return;
      }
      char buffer[10];
      int length = sizeof(buffer);
      self.mResult = DoDlZooGet(handle, "/node", 0, buffer, &length, nullptr);
      self.mClosed = DoDlZookeeperClose(handle);
      self.mAfter = DoDlZooExists(handle, "/node", 0, nullptr);
      self.mDone = true;
    }
    std::atomic<int> mResult{1};
    std::atomic<int> mClosed{1};
    std::atomic<int> mAfter{1};
    std::atomic<bool> mDone{false};
  } follower;
  Events events;
  zhandle_t* handle = Open();
  RawZookeeper raw(mUrl);
  raw.Create("/node", "1");
  ASSERT_EQ(DoDlZooWexists(handle, "/node", &Follower::Watch, &follower, nullptr), ZOK);
  ASSERT_EQ(DoDlZooWexists(handle, "/node", &Events::Watch, &events, nullptr), ZOK);
  ASSERT_EQ(DoDlZooWexists(handle, "/node", &Events::Watch, &events, nullptr), ZOK);
  raw.Delete("/node");
  ASSERT_TRUE(WaitUntil([&] { return events.Count(ZOO_DELETED_EVENT, "/node") == 1; }));
  EXPECT_EQ(events.mEvents[0].handle, handle);
  raw.Create("/node", "2");
  ASSERT_TRUE(WaitUntil([&] { return follower.mDone.load(); }));
  EXPECT_EQ(follower.mResult, ZOK);
  EXPECT_EQ(follower.mClosed, ZOK);
  EXPECT_EQ(follower.mAfter, ZINVALIDSTATE);
  EXPECT_EQ(events.Count(ZOO_DELETED_EVENT, "/node"), 1U);  // set twice, told once
  VynRemoveZkHandle();
}

TEST_F(ZkHelperTest, NothingHangsWhenTheSessionExpires) {
  constexpr int kRounds = 20;
  constexpr int kThreads = 24;
  RawZookeeper(mUrl).Create("/node", "value");
  for (int round = 0; round < kRounds; ++round) {
    zhandle_t* handle = Open(2000);
    const clientid_t id = DoDlZooClientId(handle);
    std::atomic<int> answered{0};
    std::mutex mutex;
    std::set<int> results;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        int result = ZOK;
        while (result != ZINVALIDSTATE) {
          char buffer[10];
          int length = sizeof(buffer);
          String_vector names{};
          switch (i % 4) {
            case 0:
              result = DoDlZooExists(handle, "/", -1, nullptr);
              break;
            case 1:
              result = DoDlZooGet(handle, "/node", 0, buffer, &length, nullptr);
              break;
            case 2:
              result = DoDlZooSet(handle, "/node", "other", 5, -1);
              break;
            default:
              result = DoDlZooGetChildren(handle, "/", 0, &names);
              break;
          }
          DoDlDeallocateStringVector(&names);
          ++answered;
          std::lock_guard lock(mutex);
          results.insert(result);
        }
      });
    }
    ASSERT_TRUE(WaitUntil([&] { return answered > 10 * kThreads; }));
    ExpireSession(gServer->Port(), id);
    threads.clear();
    constexpr int kUnknownSession = -12;  // a server's word for what came while it ended the session
    EXPECT_THAT(results, testing::Each(AnyOf(ZOK, ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSESSIONMOVED,
                                             ZINVALIDSTATE, kUnknownSession)))
        << "round " << round;
    EXPECT_EQ(VynGetZkHandle(), handle);
    EXPECT_EQ(DoDlZooExists(handle, "/", -1, nullptr), ZINVALIDSTATE);
    EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("the session has expired"));
    VynRemoveZkHandle();
    EXPECT_EQ(DoDlZookeeperClose(handle), ZOK);
  }
}

TEST_F(ZkHelperTest, ClosingUnderCallsEndsThem) {
  for (int round = 0; round < 20; ++round) {
    zhandle_t* handle = Open();
    std::atomic<int> answered{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        int result = ZOK;
        while (result == ZOK) {
          result = DoDlZooExists(handle, "/", 0, nullptr);
          ++answered;
        }
        EXPECT_THAT(result, AnyOf(ZCLOSING, ZINVALIDSTATE));
      });
    }
    ASSERT_TRUE(WaitUntil([&] { return answered > 100; }));
    Close();
    threads.clear();
  }
}

TEST_F(ZkHelperTest, AWatchThatALostConnectionKeptFromBeingSetIsTold) {
  zhandle_t* handle = Open();
  Events events;
  gServer->Kill();
  int result = ZOK;
  ASSERT_TRUE(WaitUntil([&] {
    result = DoDlZooWexists(handle, "/watched", &Events::Watch, &events, nullptr);
    return result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT;
  })) << result;
  gServer->Start();
  EXPECT_TRUE(WaitUntil([&] { return events.Count(ZOO_SESSION_EVENT, "/watched") >= 1; }));
}

}  // namespace
}  // namespace vyn::test
