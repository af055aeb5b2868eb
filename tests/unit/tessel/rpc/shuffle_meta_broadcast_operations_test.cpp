// The operations about applications, broadcast variables and nodes.

#include "common/message/heart_beat_message.h"
#include "support/meta_client_test.h"

namespace vyn::tessel {
namespace {

using test::BytesOf;
using test::CapturedLog;
using test::CheckOperation;
using test::OperationRow;
using test::ReadAs;

class MetaBroadcastOperationsTest : public MetaClientTest {};

/// A message whose application id is `app`.
template <typename T>
Ref<T> Of(const std::string& app) {
  Ref<T> message(new T);
  message->appId = app;
  return message;
}

template <typename T>
std::function<void(const std::string&)> NamesApplication(const std::string& app) {
  return [app](const std::string& body) { EXPECT_EQ(ReadAs<T>(body)->appId, app); };
}

TEST_F(MetaBroadcastOperationsTest, EveryOperationSendsItsRequestAndTellsItsFailure) {
  const auto blocks = Of<BroadcastBlockInfo>("app");
  blocks->bmIds = {"id"};
  BlockBmInfo bmInfo;
  bmInfo.bmIds = {"id0"};
  BroadcastRemoteNodeRsp nodes;
  nodes.selectedNodes = {"10.0.0.1"};
  NodeIdResponse member;
  member.isMfNode = true;
  ClusterCapacityMessage cluster;
  for (const std::uint64_t figure : {5, 7}) {
    Ref<CapacityInfo> capacity(new CapacityInfo);
    capacity->host = "host" + std::to_string(figure);
    capacity->capacityA = figure;
    capacity->capacityB = 2 * figure;
    cluster.caps.push_back(capacity);
  }
  ShuffleApplicationIdList valid;
  valid.appIds = {"app"};
  HostMessage hosts;
  hosts.hosts = {"dead"};

  Ref<BroadcastBlockInfo> blocksGot(new BroadcastBlockInfo);
  Ref<BlockBmInfo> bmInfoGot(new BlockBmInfo);
  Ref<BroadcastRemoteNodeRsp> nodesGot(new BroadcastRemoteNodeRsp);
  Ref<NodeIdResponse> memberGot(new NodeIdResponse);
  Ref<ShuffleApplicationIdList> validGot(new ShuffleApplicationIdList);
  std::vector<std::string> capacities{"before"};
  std::vector<std::string> unavailable;

  const auto beat = [&](const std::string& app, const std::string& process) {
    return mClient->HeartBeat(app, 200, process, "any text, even a.b;c", true);
  };
  const auto isMfNode = [&](const std::vector<std::string>& addresses) {
    Ref<BroadcastRemoteNodeReq> request(new BroadcastRemoteNodeReq);
    request->candidateNodes = addresses;
    return mClient->IsMfNode(request, memberGot);
  };
  const std::string beatWords =
      "appName or processName does not compliance with specifications in heart beat";
  const std::string removeWords =
      "Broadcast variable appId does not compliance with specifications in remove action";

  std::vector<OperationRow> rows = {
      {.name = "HeartBeat",
       .opcode = 21,
       .call = [&] { return beat("app", "driver"); },
       .sent =
           [](const auto& body) {
             const auto request = ReadAs<common::HeartBeatMessage>(body);
             EXPECT_EQ(std::tie(request->ns, request->processType, request->processName, request->content,
                                request->isAlive),
                       std::make_tuple("app", 200, "driver", "any text, even a.b;c", true));
           },
       .words =
           "Rpc failed to send heart beat message as appName: app processType: 200, process name: driver, "
           "content is: any text, even a.b;c flag is: 1",
       .refusals = {{[&] { return beat("a b", "driver"); }, 2000013, beatWords},
                    {[&] { return beat("app", ""); }, 2000013, beatWords}}},
      {.name = "AppRemove",
       .opcode = 0,
       .call = [&] { return mClient->AppRemove("app"); },
       .sent = NamesApplication<ShuffleApplication>("app"),
       .words = "Rpc failed to send remove app as {code}",
       .refusals = {{[&] { return mClient->AppRemove("a.b"); }, 2000013,
                     "shuffle blob name does not compliance with specifications in bag get info"}}},
      {.name = "BroadcastVarNew",
       .opcode = 22,
       .call = [&] { return mClient->BroadcastVarNew(Of<BroadcastVar>("app")); },
       .sent = NamesApplication<BroadcastVar>("app"),
       .words = "Rpc failed to send create broadcast var as {code}",
       .refusals = {{[&] { return mClient->BroadcastVarNew(Of<BroadcastVar>("")); }, 2000013,
                     "Application Id does not compliance with specifications in broadcast var new"}}},
      {.name = "BroadcastVarRemove",
       .opcode = 23,
       .call = [&] { return mClient->BroadcastVarRemove(Of<BroadcastVar>("app")); },
       .sent = NamesApplication<BroadcastVar>("app"),
       .words = "Rpc failed to send remove broadcast var as {code}",
       .refusals = {{[&] { return mClient->BroadcastVarRemove(Of<BroadcastVar>("")); }, 2000013,
                     removeWords}}},
      {.name = "BroadcastVarInfoGet",
       .opcode = 24,
       .call = [&] { return mClient->BroadcastVarInfoGet(Of<BroadcastVar>("app"), blocksGot); },
       .sent = NamesApplication<BroadcastVar>("app"),
       .reply = BytesOf(*blocks),
       .taken = [&] { EXPECT_THAT(blocksGot->bmIds, testing::ElementsAre("id")); },
       .words = "Rpc failed to send get broadcast variable info as {code}",
       .refusals = {{[&] { return mClient->BroadcastVarInfoGet(Of<BroadcastVar>(""), blocksGot); }, 2000013,
                     "Broadcast variable appId does not compliance with specifications in get action"}}},
      {.name = "BroadcastVarInfoAdd",
       .opcode = 25,
       .call = [&] { return mClient->BroadcastVarInfoAdd(blocks); },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<BroadcastBlockInfo>(body)->bmIds[0], "id"); },
       .words = "Rpc failed to send var info add message as {code}",
       .refusals = {{[&] { return mClient->BroadcastVarInfoAdd(Of<BroadcastBlockInfo>("")); }, 2000013,
                     removeWords}}},
      {.name = "BroadcastBlockInfoAdd",
       .opcode = 26,
       .call = [&] { return mClient->BroadcastBlockInfoAdd(blocks); },
       .sent = [](const auto& body) { EXPECT_EQ(ReadAs<BroadcastBlockInfo>(body)->bmIds[0], "id"); },
       .words = "Rpc failed to send block info add message as {code}",
       .refusals = {{[&] { return mClient->BroadcastBlockInfoAdd(Of<BroadcastBlockInfo>("")); }, 2000013,
                     removeWords}}},
      {.name = "BroadcastBlockInfoFetch",
       .opcode = 27,
       .call = [&] { return mClient->BroadcastBlockInfoFetch(Of<BlockInfoRequest>("app"), bmInfoGot); },
       .sent = NamesApplication<BlockInfoRequest>("app"),
       .reply = BytesOf(bmInfo),
       .taken = [&] { EXPECT_THAT(bmInfoGot->bmIds, testing::ElementsAre("id0")); },
       .words = "Rpc failed to send block info fetch message as {code}",
       .refusals =
           {{[&] { return mClient->BroadcastBlockInfoFetch(Of<BlockInfoRequest>(""), bmInfoGot); }, 2000013,
             "Application Id does not compliance with specifications in broadcast block info fetch"}}},
      {.name = "BroadcastRemoteNodeInfoGet",
       .opcode = 28,
       .call =
           [&] { return mClient->BroadcastRemoteNodeInfoGet(Of<BroadcastRemoteNodeReq>("app"), nodesGot); },
       .sent = NamesApplication<BroadcastRemoteNodeReq>("app"),
       .reply = BytesOf(nodes),
       .taken = [&] { EXPECT_THAT(nodesGot->selectedNodes, testing::ElementsAre("10.0.0.1")); },
       .words = "Rpc failed to send remote node info get message as {code}",
       .refusals =
           {{[&] { return mClient->BroadcastRemoteNodeInfoGet(Of<BroadcastRemoteNodeReq>(""), nodesGot); },
             2000013,
             "Application Id does not compliance with specifications in broadcast remote node info get"}}},
      {.name = "IsMfNode",
       .opcode = 29,
       .call = [&] { return isMfNode({"10.0.0.2"}); },
       .sent =
           [](const auto& body) {
             EXPECT_EQ(ReadAs<BroadcastRemoteNodeReq>(body)->candidateNodes[0], "10.0.0.2");
           },
       .reply = BytesOf(member),
       .taken = [&] { EXPECT_TRUE(memberGot->isMfNode); },
       .words = "Rpc failed to send mf node judge message as {code}",
       .refusals = {{[&] { return isMfNode({}); }, 2000013, "Current node is not allocated with any IP."}}},
      {.name = "GetMfCapacityList",
       .opcode = 30,
       .call = [&] { return mClient->GetMfCapacityList("app", capacities); },
       .sent = NamesApplication<ShuffleApplication>("app"),
       .reply = BytesOf(cluster),
       .taken = [&] { EXPECT_THAT(capacities, testing::ElementsAre("before", "host5-5-10", "host7-7-14")); },
       .words = "Rpc failed to get mf capacity list as {code}"},
      {.name = "CheckValidApps",
       .opcode = 17,
       .call =
           [&] {
             Ref<ShuffleApplicationIdList> request(new ShuffleApplicationIdList);
             request->appIds = {"app", "gone"};
             return mClient->CheckValidApps(request, validGot);
           },
       .sent =
           [](const auto& body) {
             EXPECT_THAT(ReadAs<ShuffleApplicationIdList>(body)->appIds, testing::ElementsAre("app", "gone"));
           },
       .reply = BytesOf(valid),
       .taken = [&] { EXPECT_THAT(validGot->appIds, testing::ElementsAre("app")); },
       .words = "Failed to call rpc func to check valid applications."},
      {.name = "GetUnavailableNodeList",
       .opcode = 20,
       .call = [&] { return mClient->GetUnavailableNodeList("app", unavailable); },
       .sent = NamesApplication<ShuffleApplication>("app"),
       .reply = BytesOf(hosts),
       .taken = [&] { EXPECT_THAT(unavailable, testing::ElementsAre("dead")); },
       .words = "Failed to send rpc message GET_UNAVAILABLE_NODE_LIST as {code}"},
  };
  for (OperationRow& row : rows) {
    row.failure = 2060009;
    row.timeout = kTimeout;
    CheckOperation(row, mService);
  }
  EXPECT_THAT(capacities, testing::SizeIs(3)) << "a failed call adds nothing";
  EXPECT_TRUE(unavailable.empty()) << "a failed call leaves no node";
}

TEST_F(MetaBroadcastOperationsTest, TheServersOneIsAppRemovesOwnAnswerAndAnOddityElsewhere) {
  CapturedLog log;
  mService.Answer(0, {1, ""});
  mService.Answer(22, {1, ""});
  EXPECT_EQ(mClient->AppRemove("app"), 1U);
  EXPECT_FALSE(log.Has(4, "Rpc failed to send remove app as 1"));
  EXPECT_EQ(mClient->BroadcastVarNew(Of<BroadcastVar>("app")), 2060009U);
  mService.Answer(0, {2060203, ""});
  EXPECT_EQ(mClient->AppRemove("app"), 2060009U);
}

TEST_F(MetaBroadcastOperationsTest, ARefusedRequestDoesNotEvenLookForTheLeader) {
  CapturedLog log;
  SetLeader("127.0.0.2");
  EXPECT_EQ(mClient->BroadcastVarNew(nullptr), 2000057U);
  EXPECT_EQ(mClient->BroadcastBlockInfoAdd(nullptr), 2000057U);
  EXPECT_EQ(mClient->BroadcastVarNew(Of<BroadcastVar>("a b")), 2000013U);
  EXPECT_TRUE(log.Texts(2).empty()) << "the pool was moved";
  EXPECT_TRUE(mService.Requests().empty());
}

TEST_F(MetaBroadcastOperationsTest, TheQuestionForUnavailableNodesIsToldBeforeItIsSent) {
  CapturedLog log;
  mService.Answer(20, {2060011, ""});
  std::vector<std::string> nodes{"old"};
  EXPECT_EQ(mClient->GetUnavailableNodeList("app", nodes), 2060009U);
  EXPECT_TRUE(log.Has(1, "Send get unavailable node list request for app"));
}

}  // namespace
}  // namespace vyn::tessel
