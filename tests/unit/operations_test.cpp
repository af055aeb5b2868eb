// Every operation of the three clients: what it sends, what it takes from the answer, how it fails and what it
// refuses.

#include "support/client/client_test.h"
#include "support/random_steps.h"
#include "support/rpc/all_messages.h"
#include "support/test.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tuning/rpc/tuning_rpc_engine.h"

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::HeartBeatMessage;
using common::Ref;
using namespace tessel;  // NOLINT: the messages
using namespace tuning;  // NOLINT
using BlobIds = std::vector<Ref<ShuffleBlobId>>;
using NodeIds = std::set<std::uint16_t>;
using Numbers = std::vector<unsigned int>;
using Parameters = std::map<std::string, std::string>;
using Sizes = std::vector<std::uint64_t>;
using Texts = std::vector<std::string>;
using Server = ShuffleServerRPCEngine;
using Meta = ShuffleMetaRPCEngine;
using Tuning = TuningRpcEngine;

using Call = std::function<std::uint32_t()>;
#define CALL(...) [&] { return __VA_ARGS__; }

/// A message with these values, in the order in which the class names its members.
template <typename Class, typename... Values>
Ref<Class> Make(Values... values) {
  Ref<Class> message(new Class);
  message->Fields() = std::make_tuple(values...);
  return message;
}

Ref<ShuffleBlob> Blob(unsigned int bag, unsigned long inner) {
  Ref<ShuffleBlob> blob(new ShuffleBlob);
  blob->mId = new ShuffleBlobId(bag, inner);
  return blob;
}

/// A value of one member with which a request is refused.
template <std::size_t Member, typename Value>
auto With(Value value) {
  return std::pair(std::integral_constant<std::size_t, Member>(), value);
}

/// How the operations of a client fail, or one that differs from the others in it.
struct Failure {
  std::uint32_t status = 0;  ///< what the caller gets
  long timeout = 0;          ///< milliseconds
  std::uint32_t passed = 0;  ///< the service's own answer that the caller gets as it is
};

class OperationsTest : public testing::Test {
 protected:
  OperationsTest() {
    const auto conf = PlainConfiguration();
    for (const char* key : {"vyn.tessel.rpc.shuffle_server.port", "vyn.tessel.rpc.shuffle_meta.port",
                            "vyn.tuning.rpc.server.port"}) {
      conf->Set(key, int{mService.Port()});
    }
    conf->Set("vyn.tessel.rpc.local_blob.get.timeout", 7001L);
    conf->Set("vyn.tessel.rpc.local_blob.commit.timeout", 7002L);
    conf->Set("vyn.tessel.broadcast.variable.create.timeout", 7003L);
    conf->Set("vyn.tessel.broadcast.variable.fetch.timeout", 7004L);
    SetLeader("127.0.0.1");
  }

  /// The operation `opcode` sends `request`. The service answers with `answer`; `taken` tells whether the caller
  /// got what that says.
  void Check(
      unsigned int opcode, Failure failure, const Call& call, const Ref<BaseMessage>& request,
      const std::string& answer = "", const std::function<bool()>& taken = [] { return true; }) {
    SCOPED_TRACE(std::to_string(opcode) + ", VYN_SEED=" + std::to_string(mSeed));
    const auto run = [&](const ScriptedService::Reply& reply) {
      mService.Clear();
      mService.Answer(opcode, reply);
      return call();
    };
    EXPECT_EQ(run({0, answer}), 0U);
    ASSERT_EQ(mService.Requests().size(), 1U);
    EXPECT_EQ(mService.Requests()[0].opcode, opcode);
    EXPECT_EQ(mService.Requests()[0].body, BytesOf(*request));
    EXPECT_TRUE(taken());

    failure.status = failure.status != 0 ? failure.status : mFailure.status;
    failure.timeout = failure.timeout != 0 ? failure.timeout : mFailure.timeout;
    for (const std::uint32_t code : {1U, 2060203U, 2060011U}) {
      EXPECT_EQ(run({code, ""}), code == failure.passed ? code : failure.status);
    }
    const CapturedLog log;
    EXPECT_EQ(run({0, "", ScriptedService::Reply::kNoAnswer}), failure.status);
    EXPECT_THAT(log.Texts(4),
                testing::Contains(testing::EndsWith(" " + std::to_string(failure.timeout) + "ms.")));
  }
  /// As Check; the answer is a random `Reply`, which `got`, the caller's object, must hold afterwards.
  template <typename Reply>
  void CheckInto(unsigned int opcode, const Failure& failure, Ref<Reply>& got, const Call& call,
                 const Ref<BaseMessage>& request) {
    Reply reply;
    Fill(reply, mRandom);
    const std::string bytes = Bytes(reply);
    got = new Reply;
    Check(opcode, failure, call, request, bytes, CALL(Bytes(*got) == bytes));
  }
  /// An operation that takes as it is a request of these values.
  template <typename Engine, typename Request, typename... Rest, typename... Values, typename... Wrong>
  void Ask(unsigned int opcode, const Failure& failure, std::uint32_t (Engine::*operation)(Request, Rest...),
           const std::tuple<Values...>& values, const Wrong&... wrong) {
    std::decay_t<Request> request(new std::remove_reference_t<decltype(*std::declval<Request>())>);
    request->Fields() = values;
    std::tuple<std::decay_t<Rest>...> rest;  // the object for the answer, a token
    const Call call = [&] {
      const auto run = [&](auto&... each) {
        return (*std::get<Ref<Engine>>(mClients).*operation)(request, each...);
      };
      return std::apply(run, rest);
    };
    if constexpr (sizeof...(Rest) == 0) {
      Check(opcode, failure, call, request);
    } else {
      CheckInto(opcode, failure, std::get<0>(rest), call, request);
    }
    [[maybe_unused]] const auto refuse = [&](auto& member, const auto& value) {
      const auto good = std::exchange(member, value);
      Refuse({call});
      member = good;
    };
    (refuse(std::get<Wrong::first_type::value>(request->Fields()), wrong.second), ...);
    request = nullptr;
    EXPECT_EQ(call(), mNullRefusal);
  }

  /// Calls whose arguments are refused.
  void Refuse(const std::vector<Call>& calls) {
    for (const Call& call : calls) {
      mService.Clear();
      EXPECT_EQ(call(), mRefusal);
      EXPECT_TRUE(mService.Requests().empty());
    }
  }

  std::uint32_t mRefusal = 2000013;
  std::uint32_t mNullRefusal = 2000057;
  Failure mFailure;
  const unsigned int mSeed = Seeds(1)[0];
  test::Random mRandom{mSeed};
  ScriptedService mService;
  std::tuple<Ref<Server>, Ref<Meta>, Ref<Tuning>> mClients{Server::CreateInstance(),
                                                           Meta::CreateInstance(8001, true, nullptr),
                                                           Tuning::CreateInstance(9001, false, 3)};
  const Ref<Server> mServer = std::get<0>(mClients);
  const Ref<Meta> mMeta = std::get<1>(mClients);
};

TEST_F(OperationsTest, NodeServerOperationsSendTheirRequestAndTakeTheReply) {
  ASSERT_EQ(mServer->Initialize(1, true), 0U);
  mFailure = {.status = 1, .timeout = 5000};
  mRefusal = mNullRefusal = 1;
  Ref<NodeIdResponse> registered;
  CheckInto(0, {}, registered, CALL(mServer->AppRegister("app", true, registered, "token")),
            Make<ApplicationRegisterRequest>("app", "token", true));
  Check(1, {}, CALL(mServer->AppUnregister("app", "token")),
        Make<ApplicationRegisterRequest>("app", "token", false));

  Ref<ShuffleBlob> blob(new ShuffleBlob);
  const auto create = [&](const std::string& bag, unsigned long size) {
    return mServer->BlobCreate("app", bag, blob, size, 5, "token");
  };
  Check(2, {}, CALL(create("bag", 20971520)), Make<BlobCreateRequest>("bag", "app", 20971520, 5, "token"),
        BytesOf(*Blob(3, 4)), CALL(blob->mId->bagId == 3 && blob->mId->innerId == 4));
  Refuse({CALL(create("a.bag", 1)), CALL(create("bag", 0)), CALL(create("bag", 20971521))});

  const BlobIds ids{new ShuffleBlobId(1, 2), new ShuffleBlobId(3, 4)};
  BlobIds taken;
  Check(3, {}, CALL(taken = ids, mServer->BlobBatchDelete(taken, "app", 6, "token")),
        Make<BlobBatchDeleteRequest>(ids, "app", 6, "token"), "", CALL(taken.empty()));
  Ask(4, {.timeout = 7001}, &Server::GetLocalBlob, std::tuple("app", "bag", 10, 2), With<0>(""), With<1>(""),
      With<2>(0), With<3>(0));
  Ask(5, {.timeout = 7002}, &Server::CommitLocalBlob, std::tuple("app", 77), With<0>(""), With<1>(0));
  Ask(6, {}, &Server::GetMetaLeaderInfo, std::tuple("sdk"));
  Ask(7, {.timeout = 7003}, &Server::BroadcastBlockBatchCreate, std::tuple("app", 9, Sizes{64, 65}),
      With<0>(""), With<2>(Sizes{}));
  Ask(8, {.timeout = 7004}, &Server::BroadcastBlockBatchFetch, std::tuple("app", 10, 3, true), With<0>(""));
}

TEST_F(OperationsTest, VariableAndNodeOperationsSendTheirRequestAndTakeTheReply) {
  ASSERT_EQ(mMeta->Initialize(), 0U);
  mFailure = {.status = 2060009, .timeout = 8001};
  const auto app = Make<ShuffleApplication>("app");
  Check(0, {.passed = 1}, CALL(mMeta->AppRemove("app")), app);
  Refuse({CALL(mMeta->AppRemove("a.b"))});
  Ask(17, {}, &Meta::CheckValidApps, std::tuple(Texts{"app", "gone"}));
  Texts hosts;
  Check(20, {}, CALL(mMeta->GetUnavailableNodeList("app", hosts)), app,
        BytesOf(*Make<HostMessage>("app", Texts{"dead"})), CALL(hosts == Texts{"dead"}));
  Check(21, {}, CALL(mMeta->HeartBeat("app", 200, "driver", "a text", true)),
        Make<HeartBeatMessage>("app", 200, "driver", "a text", true));
  Refuse(
      {CALL(mMeta->HeartBeat("a b", 1, "driver", "", true)), CALL(mMeta->HeartBeat("app", 1, "", "", true))});

  const std::tuple var("app", 7, 3, true);
  Ask(22, {}, &Meta::BroadcastVarNew, var, With<0>("a b"));
  Ask(23, {}, &Meta::BroadcastVarRemove, var, With<0>("a b"));
  Ask(24, {}, &Meta::BroadcastVarInfoGet, var, With<0>("a b"));
  const std::tuple info("app", 7, 2, Texts{"id"}, Sizes{64});
  Ask(25, {}, &Meta::BroadcastVarInfoAdd, info, With<0>("a b"));
  Ask(26, {}, &Meta::BroadcastBlockInfoAdd, info, With<0>("a b"));
  Ask(27, {}, &Meta::BroadcastBlockInfoFetch, std::tuple("app", 7, 2), With<0>("a b"));
  const std::tuple nodes("app", true, Texts{"10.0.0.1"});
  Ask(28, {}, &Meta::BroadcastRemoteNodeInfoGet, nodes, With<0>("a b"));
  Ask(29, {}, &Meta::IsMfNode, nodes, With<2>(Texts{}));
  const std::vector capacities{Make<CapacityInfo>("h5", 5, 10), Make<CapacityInfo>("h7", 7, 14)};
  Texts list;
  Check(30, {}, CALL(list = {"before"}, mMeta->GetMfCapacityList("app", list)), app,
        BytesOf(*Make<ClusterCapacityMessage>("app", capacities)),
        CALL(list == Texts{"before", "h5-5-10", "h7-7-14"}));
}

TEST_F(OperationsTest, ShuffleOperationsSendTheirRequestAndTakeTheReply) {
  ASSERT_EQ(mMeta->Initialize(), 0U);
  mFailure = {.status = 2060009, .timeout = 8001};
  const std::tuple batch(7, 1, 2, "part", "app");
  Ask(4, {.passed = 2060203}, &Meta::BagBatchNew, batch, With<3>("a/b"));
  Ask(5, {}, &Meta::BagBatchRemove, batch, With<3>("a/b"), With<0>(0));

  const Ref<ShuffleBlobList> blobs(new ShuffleBlobList);
  bool result = false;
  NodeIds removed{1};
  const auto list = [&] {
    blobs->mBlobs.clear();
    return mMeta->BlobListUnderBagWithMapTaskInfo("bag", blobs, true, result, removed, 23);
  };
  Check(6, {}, list, Make<BlobListBagRequest>("bag", true, 23),
        BytesOf(*Make<ShuffleBlobListAndTaskInfo>(0, "", Texts{}, Texts{BytesOf(*Blob(1, 2))}, true,
                                                  NodeIds{8, 9}, "")),
        CALL(blobs->mBlobs.at(0)->mId->innerId == 2 && result && removed == NodeIds{8, 9}));

  const auto ids = [](unsigned int bag, unsigned long inner) {
    return BlobIds{new ShuffleBlobId(1, 2), new ShuffleBlobId(bag, inner)};
  };
  Check(7, {}, CALL(mMeta->BlobBatchRemove("app", ids(3, 4))), Make<ShuffleBlobIdList>("app", ids(3, 4)));
  Refuse({CALL(mMeta->BlobBatchRemove("app", ids(0, 4))), CALL(mMeta->BlobBatchRemove("app", ids(3, 0))),
          CALL(mMeta->BlobBatchRemove("app", {nullptr}))});

  Ref<ShuffleBlobStateIndexList> states;
  const auto update = [&](const Ref<ShuffleBlob>& last) {
    std::vector<Ref<ShuffleBlob>> updated{Blob(1, 2), last};
    return mMeta->BlobBatchUpdate("app", 24, updated, states);
  };
  const auto wide = Blob(0x01020304, 0x05060708090a0b0cUL);
  // Bag and inner id are big-endian, and nothing follows them.
  const Texts keys{std::string("\0\0\0\1\0\0\0\0\0\0\0\2", 12) + std::string(84, '\0'),
                   "\1\2\3\4\5\6\7\x8\x9\xa\xb\xc" + std::string(84, '\0')};
  const Texts values{BytesOf(*Blob(1, 2)), BytesOf(*wide)};
  CheckInto(8, {}, states, CALL(update(wide)),
            Make<ShuffleBlobListAndTaskInfo>(24, "app", keys, values, false, NodeIds{}, ""));
  Refuse({CALL(update(nullptr)), CALL(update(new ShuffleBlob))});

  Numbers children;
  Ref<ShuffleIdList> shuffles;
  CheckInto(9, {}, shuffles,
            CALL(children = {1, 2}, mMeta->MarkStageUseless("app", children, true, shuffles, 33, 34)),
            Make<ShuffleStagesCompletedInfo>("app", Numbers{1, 2}, true, 33, 34));
  EXPECT_TRUE(children.empty()) << "also by a call that failed";
  Check(10, {}, CALL(mMeta->SetStageShuffleId("app", 31, 32)), Make<ShuffleStage>("app", 31, 32));
  Ask(11, {}, &Meta::MapTaskStatusUpdate, std::tuple("app", 1, 2, 3, 4, 5, 6, 7));

  Ref<ShuffleBagIdEntry> entry;
  Texts stale{"old"};
  Check(12, {}, CALL(mMeta->BagListGetBatch("prefixapp_1_2_3_4", 21, 22, entry, stale)),
        Make<ShuffleBagInfoGetRequest>("app_1_2_3", "prefixapp_1_2_3_4", 21, 22),
        BytesOf(*Make<ShuffleBagIdList>(11, 12, "prefix", Texts{"stale"})),
        CALL(std::tie(entry->entryValue0, entry->entryValue1, entry->bagPrefix, stale) ==
             std::tuple(11U, 12U, "prefix", Texts{"stale"})));
  Ask(13, {}, &Meta::BatchCASShuffleBlobStates, std::tuple("app", 5, Numbers{2, 3}));
  Ask(31, {}, &Meta::CASBlobListState, std::tuple("bag", 6, Numbers{2, 3}));
  Check(14, {}, CALL(mMeta->MarkWorkerRemoved("app", 38)), Make<WorkerRemovedNotification>("app", 38));
  std::string host;
  Check(15, {}, CALL(mMeta->FindWorkerByNodeId("app", 37, host)),
        Make<MapTaskStatus>("app", 0, 0, 0, 0, 0, 0, 37), BytesOf(*Make<NodeInformation>("host", 37)),
        CALL(host == "host"));
  Check(18, {}, CALL(mMeta->MarkStageHasFailedTask("app", 35)), Make<StageInfo>("app", 35));
  Check(19, {}, CALL(mMeta->MarkStageAllTaskDone("app", 36)), Make<StageInfo>("app", 36));
}

TEST_F(OperationsTest, TuningOperationsSendTheirRequestAndTakeTheReply) {
  const Ref<Tuning> tuning = std::get<2>(mClients);
  ASSERT_EQ(tuning->Initialize(), 0U);
  mFailure = {.status = 2020025, .timeout = 9001};
  const std::tuple query("f", "a", "q");
  Ask(0, {}, &Tuning::RegisterSqlHistory, query, With<0>(""), With<1>("a.b"), With<2>("q;"));
  Ask(1, {}, &Tuning::UnRegisterSqlHistory, query, With<2>(""));
  Check(2, {.status = 2060009}, CALL(tuning->HeartBeat("app", 1, "driver", "a text", false)),
        Make<HeartBeatMessage>("app", 1, "driver", "a text", false));
  Refuse({CALL(tuning->HeartBeat("app", 1, "a b", "", true)),
          CALL(tuning->HeartBeat("", 1, "driver", "", true))});
  const Parameters good{{"k", "any text"}};
  const Parameters bad{{"k", "v"}, {"k 2", "v"}};
  Ask(3, {}, &Tuning::ReportTuningMetrics, std::tuple("f", "a", "q", "type", "any text", bad), With<1>("a b"),
      With<3>("a type"));
  Ask(4, {}, &Tuning::InferByHistory, std::tuple("f", "a", "q", "type", "any text", good), With<1>("a b"),
      With<3>(""), With<5>(bad));
  common::Configuration::GetInstance()->Set("vyn.tuning.rpc.server.port", 1);
  EXPECT_NE(Tuning::CreateInstance(9001, false, 3)->Initialize(), 0U);
}

}  // namespace
}  // namespace vyn::test
