#include "tuning/rpc/tuning_rpc_engine.h"

#include "cluster/meta_node_info.h"
#include "common/message/heart_beat_message.h"
#include "support/client_test.h"
#include "support/fake_clock.h"

#include <mutex>

namespace vyn::tuning {
namespace {

using std::chrono::seconds;
using test::BytesOf;
using test::CapturedLog;
using test::CheckOperation;
using test::FakeClock;
using test::OperationRow;
using test::ReadAs;
using test::ScriptedService;

constexpr unsigned int kUnregister = 1;

class TuningRpcEngineTest : public testing::Test {
 protected:
  TuningRpcEngineTest() {
    mConf = test::PlainConfiguration();
    mConf->Set("vyn.tuning.rpc.server.port", int{mNodes.first->Port()});
    MoveLeader("127.0.0.1");
    mClient = TuningRpcEngine::CreateInstance(9001, false, 3);
  }

  static void MoveLeader(const std::string& address) {
    const auto metaNode = common::MetaNodeInfo::GetInstance();
    std::unique_lock lock(metaNode->mLeaderLock);
    metaNode->mLeaderAddress = address;
  }

  template <typename T>
  static Ref<T> Of(const std::string& field, const std::string& app, const std::string& query) {
    Ref<T> message(new T);
    message->mCommonInfo = {field, app, query};
    return message;
  }

  std::uint32_t UnRegister() {
    auto message = Of<TuningSqlMessage>("f", "a", "q");
    return mClient->UnRegisterSqlHistory(message);
  }

  Ref<common::Configuration> mConf;
  test::TwinServices mNodes;
  Ref<TuningRpcEngine> mClient;
};

TEST_F(TuningRpcEngineTest, EveryOperationSendsItsRequestAndTellsItsFailure) {
  ASSERT_EQ(mClient->Initialize(), 0U);
  EXPECT_EQ(TuningRpcEngine::mTuningRpcEngine.Get(), mClient.Get());
  RegisterResult registered;
  registered.registered = true;
  InferResult inferred;
  inferred.parameters = {{"k", "v"}};

  Ref<RegisterResult> registeredGot(new RegisterResult);
  Ref<InferResult> inferredGot(new InferResult);
  const auto beat = [&](const std::string& app, const std::string& process) {
    return mClient->HeartBeat(app, 1, process, "a text", false);
  };
  const auto registerSql = [&](const std::string& field, const std::string& app, const std::string& query) {
    auto message = Of<TuningSqlMessage>(field, app, query);
    return mClient->RegisterSqlHistory(message, registeredGot);
  };
  const auto report = [&](const std::string& app, const std::string& type) {
    auto metrics = Of<TuningMetrics>("f", app, "q");
    metrics->metricsType = type;
    metrics->metricsIdent = "any text";
    return mClient->ReportTuningMetrics(metrics);
  };
  const auto infer = [&](const std::string& type, const std::map<std::string, std::string>& parameters) {
    Ref<InferIdentification> request(new InferIdentification);
    static_cast<TuningCommonInfo&>(request->mInferInfo) = {"f", "a", "q"};
    request->mInferInfo.inferType = type;
    request->mInferInfo.inferIdent = "any text";
    request->mInferInfo.inferParameters = parameters;
    return mClient->InferByHistory(request, inferredGot);
  };
  const std::string beatWords = "App identification appId does not compliance with specifications";
  const std::string inferWords = "App identification does not compliance with specifications";
  const std::string metricsWords =
      "OrvaneTuning metrics query identification does not compliance with specifications";
  const auto namesTheQuery = [](const auto& info) {
    EXPECT_EQ(std::tie(info.field, info.appId, info.queryIdent), std::make_tuple("f", "a", "q"));
  };

  const std::vector<OperationRow> rows = {
      {.name = "HeartBeat",
       .opcode = 2,
       .call = [&] { return beat("app", "driver"); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<common::HeartBeatMessage>(body);
             EXPECT_EQ(std::tie(request->ns, request->processType, request->processName, request->content,
                                request->isAlive),
                       std::make_tuple("app", 1, "driver", "a text", false));
           },
       .failure = 2060009,
       .words = "Rpc failed to send heart beat message as instanceName: app processType: 1, process name: "
                "driver flag is: 0",
       .refusals = {{[&] { return beat("app", "a b"); }, 2000013, beatWords},
                    {[&] { return beat("", "driver"); }, 2000013, beatWords}},
       .timeout = 9001},
      {.name = "RegisterSqlHistory",
       .opcode = 0,
       .call = [&] { return registerSql("f", "a", "q"); },
       .sent = [&](const auto& body) { namesTheQuery(ReadAs<TuningSqlMessage>(body)->mCommonInfo); },
       .reply = BytesOf(registered),
       .taken = [&] { EXPECT_TRUE(registeredGot->registered); },
       .failure = 2020025,
       .words = "Rpc failed to send app identification message as {code}",
       .refusals = {{[&] { return registerSql("", "a", "q"); }, 2000013, beatWords},
                    {[&] { return registerSql("f", "a.b", "q"); }, 2000013,
                     "Common info of field: f appId: a.b queryIdent: q is not correct"},
                    {[&] { return registerSql("f", "a", "q;"); }, 2000013, beatWords}},
       .timeout = 9001},
      {.name = "UnRegisterSqlHistory",
       .opcode = kUnregister,
       .call = [&] { return UnRegister(); },
       .sent = [&](const auto& body) { namesTheQuery(ReadAs<TuningSqlMessage>(body)->mCommonInfo); },
       .failure = 2020025,
       .words = "Rpc failed to send unregister message as {code}",
       .refusals = {{[&] {
                       auto message = Of<TuningSqlMessage>("f", "a", "");
                       return mClient->UnRegisterSqlHistory(message);
                     },
                     2000013, "Unregister query identification does not compliance with specifications"}},
       .timeout = 9001},
      {.name = "ReportTuningMetrics",
       .opcode = 3,
       .call = [&] { return report("a", "type"); },
       .sent =
           [&](const auto& body) {
             const auto request = ReadAs<TuningMetrics>(body);
             namesTheQuery(request->mCommonInfo);
             EXPECT_EQ(request->metricsIdent, "any text");
           },
       .failure = 2020025,
       .words = "Rpc failed to send app tuning message as {code}",
       .refusals = {{[&] { return report("a b", "type"); }, 2000013, metricsWords},
                    {[&] { return report("a", "a type"); }, 2000013, metricsWords}},
       .timeout = 9001},
      {.name = "InferByHistory",
       .opcode = 4,
       .call =
           [&] {
             return infer("type", {{"k1", "any text"}});
           },
       .sent =
           [&](const auto& body) {
             const auto request = ReadAs<InferIdentification>(body);
             namesTheQuery(request->mInferInfo);
             EXPECT_EQ(request->mInferInfo.inferParameters.at("k1"), "any text");
           },
       .reply = BytesOf(inferred),
       .taken = [&] { EXPECT_EQ(inferredGot->parameters.at("k"), "v"); },
       .failure = 2020025,
       .refusals = {{[&] { return infer("a type", {}); }, 2000013,
                     "Metrics info of f_a_q with inferType: a type inferIdent: any text is not correct"},
                    {[&] {
                       return infer("type", {{"k", "v"}, {"k 2", "v2"}});
                     },
                     2000013, "Infer key param k 2->v2 of f_a_q is not correct"},
                    {[&] { return infer("", {}); }, 2000013, inferWords}},
       .timeout = 9001},
  };
  for (const OperationRow& row : rows) {
    CheckOperation(row, *mNodes.first);
  }
}

TEST_F(TuningRpcEngineTest, MetricsOfABadTypeAreToldTwiceAndAnInferenceMayBeAskedWithoutItsResult) {
  ASSERT_EQ(mClient->Initialize(), 0U);
  CapturedLog log;
  auto metrics = Of<TuningMetrics>("f", "a", "q");
  metrics->metricsType = "a type";
  metrics->metricsIdent = "ident";
  EXPECT_EQ(mClient->ReportTuningMetrics(metrics), 2000013U);
  EXPECT_THAT(log.Texts(4),
              testing::ElementsAre(
                  "Metrics info of f_a_q with metricsType: a type metricsIdent: ident is not correct",
                  "OrvaneTuning metrics query identification does not compliance with specifications"));

  Ref<InferIdentification> request(new InferIdentification);
  static_cast<TuningCommonInfo&>(request->mInferInfo) = {"f", "a", "q"};
  request->mInferInfo.inferType = "type";
  Ref<InferResult> nobody;
  mNodes.first->Answer(4, {0, "no message"});
  EXPECT_EQ(mClient->InferByHistory(request, nobody), 0U);
}

TEST_F(TuningRpcEngineTest, RetriesGoWhereTheRecordSaysAndEndAfterFour) {
  ASSERT_EQ(mClient->Initialize(), 0U);
  {
    FakeClock clock;
    mNodes.first->Answer(kUnregister, {2020019, ""});
    EXPECT_EQ(UnRegister(), 2020025U);
    EXPECT_THAT(clock.Sleeps(), testing::ElementsAre(seconds(0), seconds(5), seconds(10), seconds(15)));
    EXPECT_EQ(mNodes.first->Requests().size(), 4U);
  }
  FakeClock clock;
  mNodes.first->Answer(kUnregister, [](const auto&) {
    MoveLeader("127.0.0.2");
    return ScriptedService::Reply{2020021, ""};
  });
  EXPECT_EQ(UnRegister(), 0U);
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
}

TEST_F(TuningRpcEngineTest, InitializeHandsOnThePoolsOwnFailure) {
  FakeClock clock;
  CapturedLog log;
  EXPECT_EQ(UnRegister(), 2020025U);
  EXPECT_TRUE(log.Has(4, "Refresh Master Node Info Fail, error code:2000057"));

  MoveLeader("127.0.0.3");
  EXPECT_EQ(mClient->Initialize(), 2020019U);
  EXPECT_TRUE(log.Has(
      2, "Try to initialize rpc client to server: 127.0.0.3:" + std::to_string(mNodes.first->Port())));
  EXPECT_TRUE(log.Has(4, "Failed to initialize rpc client with error code 1010009"));
  EXPECT_TRUE(log.Has(4, "Failed to reconnect to <127.0.0.3>."));
  MoveLeader("127.0.0.1");
  EXPECT_EQ(UnRegister(), 0U) << "the pool stands and follows the leader";

  mConf->Set("vyn.tessel.rpc.enableAuthentication", true);
  mConf->Set("vyn.tessel.rpc.auth.meta.principle.mapping", "");
  EXPECT_EQ(mClient->Initialize(), 1U);
  EXPECT_TRUE(log.Has(4, "Not in <vyn.tessel.rpc.auth.meta.principle.mapping> or has incorrect format"));
  mConf->Set("vyn.tessel.rpc.enableAuthentication", false);
  MoveLeader("");
  EXPECT_NE(mClient->Initialize(), 0U);
}

}  // namespace
}  // namespace vyn::tuning
