#include "services/node/metadata_client.h"

#include "services/common/service_status.h"
#include "support/meta_client_test.h"
#include "support/raw_socket.h"
#include "support/wait_until.h"
#include "tessel/message/operation_codes.h"
#include "vyn/status.h"

#include <gtest/gtest.h>

#include <thread>

namespace vyn::services {
namespace {

using tessel::SetLeader;

TEST(MetadataClient, ALookUpFollowsALeaderWhoseHostHasVanished) {
  const test::TwinServices hosts;
  test::PlainConfiguration()->Set("vyn.tessel.rpc.shuffle_meta.port", int{hosts.first->Port()});
  hosts.first->Answer(BROADCAST_VAR_GET, {0, "", test::ScriptedService::Reply::kSilence});
  tessel::BroadcastBlockInfo variable;
  variable.appId = "app";
  variable.broadcastId = 7;
  variable.bmIds = {std::string(60, 'b')};
  variable.sizes = {5};
  hosts.second->Answer(BROADCAST_VAR_GET, {0, test::BytesOf(variable)});

  MetadataClient client({.call = std::chrono::seconds(1)});
  SetLeader("127.0.0.1");
  std::jthread election([&] {
    EXPECT_TRUE(hosts.first->WaitFor(1));
    SetLeader("127.0.0.2");
  });
  tessel::BroadcastBlockInfo found;
  EXPECT_EQ(client.LookUp("app", 7, found), 0U);
  EXPECT_EQ(found.bmIds, variable.bmIds);
  hosts.second->Answer(BROADCAST_VAR_GET, {kStatusUnknownVariable, ""});
  EXPECT_EQ(client.LookUp("app", 8, found), kStatusUnknownVariable) << "the leader's own word, at once";
}

TEST(MetadataClient, ALookUpThatNobodyAnswersEnds) {
  const test::RawListener silent;
  test::PlainConfiguration()->Set("vyn.tessel.rpc.shuffle_meta.port", int{silent.Port()});
  using std::chrono::milliseconds;
  MetadataClient client({milliseconds(200), milliseconds(200), milliseconds(1500)});
  tessel::BroadcastBlockInfo found;
  SetLeader("");
  EXPECT_EQ(client.LookUp("app", 7, found), kStatusNoLeader);
  SetLeader("127.0.0.1");
  EXPECT_TRUE(Failed(client.LookUp("app", 7, found)));
  MetadataClient ending({milliseconds(200), milliseconds(200), std::chrono::hours(1)});
  ending.Stop();
  EXPECT_TRUE(Failed(ending.LookUp("app", 7, found)));
}

}  // namespace
}  // namespace vyn::services
