// The helper against a real server. The client of this machine cannot secure a connection, so this program brings
// the functions that such a client has besides; the loader finds them here. What they make is a plain session.

#include "platform/zk_helper/zk_helper.h"

#include "support/test.h"
#include "support/zookeeper_server.h"

#include <string.h>

namespace {

/// What the client was asked for last, and what it is to answer.
struct Script {
  std::string server;
  std::string texts;
  const char* refusal = nullptr;
  int closed = ZOK;
} gScript;

struct SaslParameters {
  const char* service;
  const char* host;
  const char* mechanisms;
  const void* callbacks;
};

}  // namespace

extern "C" {

FILE* zoo_get_log_stream();

zhandle_t* zookeeper_init_ssl(const char* host, const char* certificates, watcher_fn watcher, int timeout,
                              const clientid_t* id, void* context, int flags) {
  gScript.texts = certificates;
  if (gScript.refusal != nullptr) {
    // As the client does: a line a failure, to the stream, with the end of the line in a write of its own.
    fputs("2024-11-22 22:09:00,123:77(0x7f):ZOO_WARN@init@1: no matter\n", zoo_get_log_stream());
    fprintf(zoo_get_log_stream(), "2024-11-22 22:09:00,123:77(0x7f):ZOO_ERROR@init@2: %s", gScript.refusal);
    fflush(zoo_get_log_stream());
    fputs("\n", zoo_get_log_stream());
    fflush(zoo_get_log_stream());
    errno = EINVAL;
    return nullptr;
  }
  return zookeeper_init(host, watcher, timeout, id, context, flags);
}

void* zoo_sasl_make_basic_callbacks(const char* user, const char* realm, const char* passwordFile) {
  EXPECT_EQ(realm, nullptr);
  EXPECT_EQ(passwordFile, nullptr);
  return strdup(user);
}

zhandle_t* zookeeper_init_sasl(const char* host, watcher_fn watcher, int timeout, const clientid_t* id,
                               void* context, int flags, log_callback_fn log, SaslParameters* parameters) {
  gScript.texts = std::string(parameters->service) + " " + parameters->host + " " + parameters->mechanisms;
  gScript.texts += " " + std::string(static_cast<const char*>(parameters->callbacks));
  return zookeeper_init2(host, watcher, timeout, id, context, flags, log);
}

int zookeeper_close(zhandle_t* handle) {
  static const auto real = reinterpret_cast<int (*)(zhandle_t*)>(dlsym(RTLD_NEXT, "zookeeper_close"));
  const int result = real(handle);
  return result == ZOK ? gScript.closed : result;
}

}  // extern "C"

namespace vyn::test {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

class ZkHelperTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gServer = std::make_unique<ZookeeperServer>(); }
  static void TearDownTestSuite() { gServer.reset(); }

  void SetUp() override {
    gScript = {};
    mUrl = gServer->NewRoot();
    mKeys.connectTimeout = 60;
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(&zookeeper_init2), &info);
    mClientDirectory = std::filesystem::canonical(info.dli_fname).parent_path();
  }
  void TearDown() override { Close(); }

  int Init(const std::string& url, int sessionTimeout = 30000) {
    return VynZookeeperInit(url.c_str(), sessionTimeout, &mSecurity, &mKeys, mClientDirectory.c_str());
  }
  zhandle_t* Open(int sessionTimeout = 30000) {
    EXPECT_EQ(Init(mUrl, sessionTimeout), ZOK) << VynZookeeperGetLastMessage();
    return VynGetZkHandle();
  }
  static int Close() {
    zhandle_t* handle = VynGetZkHandle();
    VynRemoveZkHandle();
    return handle == nullptr ? int{ZOK} : DoDlZookeeperClose(handle);
  }

  static inline std::unique_ptr<ZookeeperServer> gServer;
  std::string mUrl;
  std::string mClientDirectory;
  VynZookeeperSecurity mSecurity{};
  VynZookeeperKeys mKeys{};
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
  const std::tuple<const char*, const char*, int, int> made[] = {
      {"/text", "0123456789", 10, ZOK}, {"/null", nullptr, -1, ZOK},    {"/empty", "", 0, ZOK},
      {"/text", "", 0, ZNODEEXISTS},    {"/no/parent", "", 0, ZNONODE}, {"/bad/", "", 0, ZBADARGUMENTS}};
  for (const auto& [path, value, length, result] : made) {
    EXPECT_EQ(DoDlZooCreate(handle, path, value, length, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0), result)
        << path;
  }

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
  char path[6];
  EXPECT_EQ(DoDlZooCreate(handle, "/made-long", "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, path, sizeof(path)), ZOK);
  EXPECT_STREQ(path, "/made");
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
  EXPECT_LT(Init(""), 0);
  const ReservedPort nobody;
  mKeys.connectTimeout = 1;
  EXPECT_EQ(Init("127.0.0.1:" + std::to_string(nobody.Number())), ZOPERATIONTIMEOUT);
  EXPECT_THAT(VynZookeeperGetLastMessage(), HasSubstr("Connection refused"));
  EXPECT_EQ(VynGetZkHandle(), nullptr);

  mKeys.connectTimeout = 60;
  zhandle_t* handle = Open();
  EXPECT_EQ(Init(mUrl), ZINVALIDSTATE);
  EXPECT_EQ(VynGetZkHandle(), handle);
  // One that is forgotten is in the way until it is closed.
  VynRemoveZkHandle();
  mKeys.connectTimeout = 0;
  EXPECT_EQ(Init(mUrl), ZINVALIDSTATE);
  mKeys.connectTimeout = 60;
  std::jthread closer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(DoDlZookeeperClose(handle), ZOK);
  });
  EXPECT_NE(Open(), handle);
}

TEST_F(ZkHelperTest, ASecuredConnectionGetsItsKeysFromAClientOfTheLibraryDirectory) {
  mSecurity = {"zookeeper", "ensemble", nullptr, "ca,certificate,key,password", true, nullptr, nullptr};
  const std::string here = mClientDirectory;
  const TempDir elsewhere;
  struct Case {
    const char* strategy;
    std::string directory;
    const char* user;  ///< its principal and its keytab
    bool encrypted;
    int result;
    std::string texts;  ///< what the client was given, or a part of the message
  };
  for (const Case& c :
       {Case{"plain", here, "", false, ZBADARGUMENTS, "\"plain\""},
        Case{nullptr, here, "", false, ZBADARGUMENTS, "\"\""},
        Case{"tls", elsewhere.Path(), "", false, ZUNIMPLEMENTED, "not from " + elsewhere.Path()},
        Case{"sasl", "/no/such/folder", "", false, ZUNIMPLEMENTED, "not from /no/such/folder"},
        Case{"tls", "", "", false, ZUNIMPLEMENTED, here + "/libzoo"},
        Case{"TLS", here, "", false, ZOK, "ca,certificate,key,password"},
        Case{"sasl", here, "/a.keytab", true, ZUNIMPLEMENTED, "/a.keytab is encrypted"},
        Case{"sasl", here, "first", false, ZOK, "zookeeper ensemble GSSAPI first"},
        Case{"SASL", here, "second", false, ZOK, "zookeeper ensemble GSSAPI second"}}) {
    SCOPED_TRACE(c.texts);
    mSecurity.strategy = c.strategy;
    mSecurity.clientPrincipal = mSecurity.clientKeytab = c.user;
    mKeys.isKeytabEncrypted = c.encrypted;
    mClientDirectory = c.directory;
    EXPECT_EQ(Init(mUrl), c.result) << VynZookeeperGetLastMessage();
    EXPECT_THAT(c.result == ZOK ? gScript.texts : VynZookeeperGetLastMessage(), HasSubstr(c.texts));
    if (c.result == ZOK && *c.user != '\0') {
      EXPECT_STREQ(getenv("KRB5_CLIENT_KTNAME"), c.user);
    }
    EXPECT_EQ(DoDlZooExists(VynGetZkHandle(), "/", 0, nullptr),
              c.result == ZOK ? int{ZOK} : int{ZINVALIDSTATE});
    EXPECT_EQ(Close(), ZOK);
  }
  mSecurity.strategy = "tls";
  gScript.refusal = "Failed to load the certificate";
  EXPECT_LT(Init(mUrl), 0);
  EXPECT_THAT(VynZookeeperGetLastMessage(),
              testing::AllOf(HasSubstr("Invalid argument"), HasSubstr(gScript.refusal),
                             testing::Not(HasSubstr("no matter"))));
  EXPECT_EQ(VynGetZkHandle(), nullptr);
}

TEST_F(ZkHelperTest, AnEndThatTheServersCannotBeToldIsReported) {
  zhandle_t* handle = Open();
  gScript.closed = ZOPERATIONTIMEOUT;
  EXPECT_EQ(Close(), ZOPERATIONTIMEOUT);
  EXPECT_EQ(DoDlZookeeperClose(handle), ZINVALIDSTATE) << "it is closed all the same";
  // To a session that has gone there is nothing to be told.
  handle = Open();
  ExpireSession(gServer->Port(), DoDlZooClientId(handle));
  ASSERT_TRUE(WaitUntil([&] { return DoDlZooExists(handle, "/", 0, nullptr) == ZINVALIDSTATE; }));
  EXPECT_EQ(Close(), ZOK);
}

TEST_F(ZkHelperTest, AnUnknownOrClosedHandleIsRefused) {
  zhandle_t* handle = Open();
  Close();
  int length = 0;
  String_vector names{};
  for (zhandle_t* none : {handle, static_cast<zhandle_t*>(nullptr)}) {
    for (const int result :
         {DoDlZooCreate(none, "/a", "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0),
          DoDlZooDelete(none, "/a", -1), DoDlZooExists(none, "/a", 0, nullptr),
          DoDlZooGet(none, "/a", 0, nullptr, &length, nullptr), DoDlZooSet(none, "/a", "", 0, -1),
          DoDlZooGetChildren(none, "/", 0, &names),
          DoDlZooWexists(none, "/a", &Events::Watch, nullptr, nullptr),
          DoDlZooWget(none, "/a", nullptr, nullptr, nullptr, &length, nullptr),
          DoDlZooWgetChildren(none, "/", nullptr, nullptr, &names), DoDlZookeeperClose(none)}) {
      EXPECT_EQ(result, ZINVALIDSTATE);
    }
    EXPECT_EQ(DoDlZooClientId(none).client_id, 0);
    EXPECT_EQ(DoDlZooRecvTimeout(none), 0);
  }
  zhandle_t* next = Open();
  EXPECT_NE(next, handle);  // never the same ticket again
  EXPECT_EQ(DoDlZooDelete(next, "/none", -1), ZNONODE);
  const std::string mine = VynZookeeperGetLastMessage();
  EXPECT_THAT(mine, HasSubstr("(-101)"));
  std::thread([&] {
    EXPECT_STREQ(VynZookeeperGetLastMessage(), "") << "the message of another thread";
    DoDlZooDelete(next, "/bad/", -1);
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

TEST_F(ZkHelperTest, NothingHangsWhenTheSessionExpiresOrIsClosedUnderCalls) {
  constexpr int kThreads = 24;
  RawZookeeper(mUrl).Create("/node", "value");
  for (int round = 0; round < 40; ++round) {
    const bool expires = round % 2 == 0;
    zhandle_t* handle = Open(2000);
    const clientid_t id = DoDlZooClientId(handle);
    std::atomic<int> answered{0};
    std::mutex mutex;
    std::set<int> results;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        int result = ZOK;
        while (result != ZINVALIDSTATE && result != ZCLOSING) {
          char buffer[10];
          int length = sizeof(buffer);
          String_vector names{};
          result = i % 4 == 0   ? DoDlZooExists(handle, "/", -1, nullptr)
                   : i % 4 == 1 ? DoDlZooGet(handle, "/node", 0, buffer, &length, nullptr)
                   : i % 4 == 2 ? DoDlZooSet(handle, "/node", "other", 5, -1)
                                : DoDlZooGetChildren(handle, "/", 0, &names);
          DoDlDeallocateStringVector(&names);
          ++answered;
          std::lock_guard lock(mutex);
          results.insert(result);
        }
      });
    }
    ASSERT_TRUE(WaitUntil([&] { return answered > 10 * kThreads; }));
    if (expires) {
      ExpireSession(gServer->Port(), id);
    } else {
      EXPECT_EQ(Close(), ZOK);
    }
    threads.clear();
    constexpr int kUnknownSession = -12;  // a server's word for what came while it ended the session
    EXPECT_THAT(results,
                testing::Each(AnyOf(ZOK, ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSESSIONMOVED, ZINVALIDSTATE,
                                    kUnknownSession, expires ? int{ZOK} : int{ZCLOSING})))
        << "round " << round;
    EXPECT_EQ(VynGetZkHandle(), expires ? handle : nullptr);
    EXPECT_EQ(DoDlZooExists(handle, "/", -1, nullptr), ZINVALIDSTATE);
    EXPECT_EQ(Close(), ZOK);
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
