// The helper against a real server.

#include "platform/zk_helper/zk_helper.h"

#include "support/test.h"
#include "support/zookeeper/zookeeper_server.h"

namespace {

std::string gAsked;  // what the last secured session was made of

}  // namespace

// The client of this machine has neither TLS nor SASL. The helper finds these functions instead.
extern "C" {

FILE* zoo_get_log_stream();

zhandle_t* zookeeper_init_ssl(const char* host, const char* certificates, watcher_fn watcher, int timeout,
                              const clientid_t* id, void* context, int flags) {
  gAsked = certificates;
  fputs("0:ZOO_ERROR@init@2: bad certificate\n", zoo_get_log_stream());
  fflush(zoo_get_log_stream());
  return gAsked == "bad" ? nullptr : zookeeper_init(host, watcher, timeout, id, context, flags);
}

void* zoo_sasl_make_basic_callbacks(const char* user, const char*, const char*) { return strdup(user); }

zhandle_t* zookeeper_init_sasl(const char* host, watcher_fn watcher, int timeout, const clientid_t* id,
                               void* context, int flags, log_callback_fn log, const char* const* given) {
  // given: the service, the host, the mechanisms and the callbacks, which are the user's name here
  gAsked = std::string(given[0]) + " " + given[1] + " " + given[2] + " " + given[3] + " " +
           getenv("KRB5_CLIENT_KTNAME");
  return zookeeper_init2(host, watcher, timeout, id, context, flags, log);
}

}  // extern "C"

namespace {

/// In this process so many allocations go well before one fails. Negative: all do.
std::atomic<int> gGoWell{-1};

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  const bool fails = gGoWell >= 0 && gGoWell-- == 0;
  void* memory = fails ? nullptr : std::malloc(size == 0 ? 1 : size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vyn::test {
namespace {

using std::string_literals::operator""s;

class ZkHelperTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gServer = std::make_unique<ZookeeperServer>(); }
  static void TearDownTestSuite() { gServer.reset(); }

  void TearDown() override { Close(); }

  int Init(const std::string& url, int sessionTimeout = 30000) {
    return VynZookeeperInit(url.c_str(), sessionTimeout, &mSecurity, &mKeys, "/usr/lib");
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
  /// A watcher that counts in its context what it is told about a znode.
  static void Count(zhandle_t*, int, int, const char* path, void* context) {
    *static_cast<std::atomic<int>*>(context) += *path == '\0' ? 0 : 1;
  }

  static inline std::unique_ptr<ZookeeperServer> gServer;
  const std::string mUrl = gServer->NewRoot();
  VynZookeeperSecurity mSecurity{};
  VynZookeeperKeys mKeys{nullptr, nullptr, nullptr, 60, false};
};

TEST_F(ZkHelperTest, ZooGetTruncatesValuesToTheBufferAndANullValueHasLengthMinusOne) {
  zhandle_t* handle = Open();
  RawZookeeper raw(mUrl);
  raw.Create("/text", "0123456789");
  raw.Create("/null");
  raw.Create("/empty", "");
  for (const auto& [path, room, expected, text] :
       {std::tuple("/text", 100, 10, "0123456789"s), std::tuple("/text", 4, 4, "0123"s),
        std::tuple("/text", 0, 0, ""s), std::tuple("/null", 4, -1, ""s), std::tuple("/empty", 4, 0, ""s)}) {
    std::string buffer(200, '#');
    int length = room;
    Stat stat{};
    ASSERT_EQ(DoDlZooGet(handle, path, 0, buffer.data(), &length, &stat), ZOK);
    EXPECT_EQ(length, expected) << path << " " << room;
    EXPECT_EQ(buffer, text + std::string(200 - text.size(), '#'));
  }
  char path[6];
  EXPECT_EQ(DoDlZooCreate(handle, "/made-long", "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, path, sizeof(path)), ZOK);
  EXPECT_STREQ(path, "/made");
}

TEST_F(ZkHelperTest, TheHelperOpensNoSessionThatItCannotSecure) {
  Dl_info client{};
  dladdr(reinterpret_cast<void*>(&zookeeper_init2), &client);
  const std::string home = std::filesystem::canonical(client.dli_fname).parent_path();
  // Behind the result: what the client was asked for, or a part of the message.
  for (const auto& [strategy, user, folder, result, words] :
       {std::tuple("plain", "me", home, ZBADARGUMENTS, "unknown strategy"),
        {"tls", "me", "/usr", ZUNIMPLEMENTED, "and not from /usr"},
        {"SASL", "me", "", ZUNIMPLEMENTED, "and not from "},
        {"sasl", "encrypted", home, ZUNIMPLEMENTED, "is encrypted"},
        {"tls", "bad", home, ZSYSTEMERROR, "bad certificate"},
        {"TLS", "me", home, ZOK, "me"},
        {"sasl", "me", home, ZOK, "zookeeper ensemble GSSAPI me me"},
        {"sasl", "you", home, ZOK, "zookeeper ensemble GSSAPI you you"}}) {
    mSecurity = {"zookeeper", "ensemble", strategy, user, true, user, user};
    mKeys.isKeytabEncrypted = user == std::string("encrypted");
    EXPECT_EQ(VynZookeeperInit(mUrl.c_str(), 30000, &mSecurity, &mKeys, folder.c_str()), result) << words;
    EXPECT_EQ(VynGetZkHandle() != nullptr, result == ZOK);
    EXPECT_THAT(result == ZOK ? gAsked : VynZookeeperGetLastMessage(), testing::HasSubstr(words));
    EXPECT_EQ(Close(), ZOK);
  }
}

TEST_F(ZkHelperTest, AWatcherMaySetItselfMakeCallsAndClose) {
  struct Follower {
    static void Watch(zhandle_t* handle, int type, int, const char*, void* context) {
      auto& self = *static_cast<Follower*>(context);
      if (type != ZOO_CREATED_EVENT) {
        DoDlZooWexists(handle, "/node", &Follower::Watch, context, nullptr);
        return;
      }
      const int result = DoDlZooExists(handle, "/node", 0, nullptr);
      const int closed = DoDlZookeeperClose(handle);
      self.mResults.set_value({result, closed, DoDlZooExists(handle, "/node", 0, nullptr)});
    }
    std::promise<std::vector<int>> mResults;
  } follower;
  std::atomic<int> told{0};
  zhandle_t* handle = Open();
  RawZookeeper raw(mUrl);
  raw.Create("/node", "1");
  ASSERT_EQ(DoDlZooWexists(handle, "/node", &Follower::Watch, &follower, nullptr), ZOK);
  const watcher_fn thrower = [](zhandle_t*, int, int, const char*, void*) { throw std::bad_alloc(); };
  ASSERT_EQ(DoDlZooWexists(handle, "/node", thrower, nullptr, nullptr), ZOK);
  for (int time = 0; time < 2; ++time) {  // set twice, told once
    ASSERT_EQ(DoDlZooWexists(handle, "/node", &Count, &told, nullptr), ZOK);
  }
  raw.Delete("/node");
  ASSERT_TRUE(WaitUntil([&] { return told == 1; }));
  raw.Create("/node", "2");
  EXPECT_EQ(follower.mResults.get_future().get(), (std::vector<int>{ZOK, ZOK, ZINVALIDSTATE}));
  EXPECT_EQ(told, 1);
  VynRemoveZkHandle();
}

TEST_F(ZkHelperTest, PendingCallsReturnWhenTheSessionExpiresOrIsClosed) {
  constexpr int kThreads = 24;
  RawZookeeper(mUrl).Create("/node", "value");
  for (int round = 0; round < 12; ++round) {
    const bool expires = round % 2 == 0;
    zhandle_t* handle = Open(10000);
    const clientid_t id = DoDlZooClientId(handle);
    std::atomic<int> answered{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        const std::set<int> expected{ZOK, ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSESSIONMOVED,
                                     -12};  // a server's word for what came while it ended the session
        int result = ZOK;
        while (expected.contains(result)) {
          result = i % 2 == 0 ? DoDlZooExists(handle, "/", -1, nullptr)
                              : DoDlZooSet(handle, "/node", "other", 5, -1);
          ++answered;
        }
        EXPECT_TRUE(result == ZINVALIDSTATE || (result == ZCLOSING && !expires)) << result;
      });
    }
    ASSERT_TRUE(WaitUntil([&] { return answered > 10 * kThreads; }));
    if (expires) {
      ExpireSession(mUrl, id);
    } else {
      EXPECT_EQ(Close(), ZOK);
    }
    threads.clear();
    EXPECT_EQ(VynGetZkHandle(), expires ? handle : nullptr);
    EXPECT_EQ(DoDlZooExists(handle, "/", -1, nullptr), ZINVALIDSTATE);
    EXPECT_EQ(Close(), ZOK) << "to a session that has gone there is nothing to be told";
  }
}

TEST_F(ZkHelperTest, AWatcherRunsAfterItsWatchCouldNotBeSetOnALostConnection) {
  zhandle_t* handle = Open();
  std::atomic<int> told{0};
  gServer->Kill();
  int result = ZOK;
  ASSERT_TRUE(WaitUntil([&] {
    result = DoDlZooWexists(handle, "/watched", &Count, &told, nullptr);
    return result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT;
  })) << result;
  gServer->Start();
  EXPECT_TRUE(WaitUntil([&] { return told >= 1; }));
}

TEST_F(ZkHelperTest, AFailedAllocationFailsAtMostOneCall) {
  std::atomic<int> told{0};
  zoo_op_t operations[2]{};
  zoo_create_op_init(&operations[0], "/other", "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
  zoo_delete_op_init(&operations[1], "/other", -1);
  int length = 0;
  char buffer[8];
  String_vector names{};
  zhandle_t* handle = nullptr;
  const std::function<int()> steps[] = {
      [&] {
        const int result = Init(mUrl);
        handle = VynGetZkHandle();
        return result;
      },
      [&] { return DoDlZooCreate(handle, "/node", "v", 1, &ZOO_OPEN_ACL_UNSAFE, 0, buffer, sizeof(buffer)); },
      [&] { return DoDlZooWexists(handle, "/node", &Count, &told, nullptr); },
      [&] { return DoDlZooWget(handle, "/node", &Count, &told, buffer, &(length = 8), nullptr); },
      [&] { return DoDlZooMulti(handle, 2, operations); },
      [&] { return DoDlZooSet(handle, "/node", "w", 1, -1); },
      [&] { return DoDlZooGetChildren(handle, "/", 0, &names); },
      [&] { return DoDlZooDelete(handle, "/node", -1); }};
  bool failed = true;
  for (int n = 0; failed; ++n) {
    SCOPED_TRACE(n);
    int failures = 0;
    gGoWell = n;
    for (const auto& step : steps) {
      int result = step();
      for (int again = 0; result == ZSYSTEMERROR && again < 2; ++again) {
        ++failures;
        result = step();  // ZNODEEXISTS or ZNONODE: the call was made, and its answer was lost
      }
      ASSERT_TRUE(result == ZOK || (failures == 1 && (result == ZNODEEXISTS || result == ZNONODE))) << result;
      DoDlDeallocateStringVector(&names);
      names = {};
    }
    EXPECT_EQ(Close(), ZOK);
    failed = gGoWell < 0;
    gGoWell = -1;
    EXPECT_LE(failures, 1);
  }
}

TEST_F(ZkHelperTest, AForkedChildDoesNotUseTheSessionOfItsParent) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer supports no threads in a forked child";
#endif
  zhandle_t* handle = Open();
  for (int round = 0; round < 10; ++round) {
    const pid_t child = ::fork();
    if (child == 0) {
      const bool apart =
          VynGetZkHandle() == nullptr && DoDlZooExists(handle, "/", 0, nullptr) == ZINVALIDSTATE;
      zhandle_t* own = Open();
      ::_exit(apart && own != handle && DoDlZooExists(own, "/", 0, nullptr) == ZOK && Close() == ZOK ? 0 : 1);
    }
    EXPECT_EQ(DoDlZooExists(handle, "/", 0, nullptr), ZOK);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
  }
}

}  // namespace
}  // namespace vyn::test
