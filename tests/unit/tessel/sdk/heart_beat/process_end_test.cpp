// The end of a process whose senders run.

#include "common/message/heart_beat_message.h"
#include "support/child_process.h"
#include "support/client_test.h"

#include <map>
#include <string>

namespace vyn::common {
namespace {

using test::ScriptedService;

TEST(ProcessEndTest, SendersEndWithoutFarewellAndWithoutWaitingForACallThatHangs) {
  for (const bool hang : {false, true}) {
    SCOPED_TRACE(hang ? "hanging in their calls" : "between two beats");
    std::map<std::string, int> beats;  // each sender's first one comes from the thread that starts it
    ScriptedService service;
    service.Answer(21, [&](const auto& request) {
      const bool first = ++beats[test::ReadAs<HeartBeatMessage>(request.body)->ns] == 1;
      return ScriptedService::Reply{
          0, "", hang && !first ? ScriptedService::Reply::kSilence : ScriptedService::Reply::kAnswer};
    });
    const test::TempDir folder;
    test::ChildProcess child({std::string(VYN_TEST_PROGRAM_DIR) + "/heart_beat_sender",
                              folder.Write("vyn.conf",
                                           "vyn.tessel.rpc.enableTLS=false\n"
                                           "vyn.tessel.rpc.enableAuthentication=false\n"
                                           "vyn.tessel.rpc.shuffle_meta.port=" +
                                               std::to_string(service.Port()) + "\n")});
    ASSERT_TRUE(service.WaitFor(6));
    // A call may take ten minutes here.
    EXPECT_EQ(child.Wait(std::chrono::seconds(60)), 0);
    for (const auto& beat : service.Requests()) {
      EXPECT_TRUE(test::ReadAs<HeartBeatMessage>(beat.body)->isAlive);
    }
  }
}

}  // namespace
}  // namespace vyn::common
