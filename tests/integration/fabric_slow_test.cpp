// What takes the fabric's own time-outs to see.

#include "support/fabric/fabric.h"
#include "support/net/raw_socket.h"

namespace vyn::test {

TEST(FabricSlowTest, TheListenerClosesAConnectionWhoseFrameStaysIncomplete) {
  const FabricPlace place(1);
  FabricHost host(place);
  RawSocket slow = RawSocket::Connect(host.Port());
  // A byte now and then does not help.
  for (int index = 0; index < 20 && !slow.Readable(2000); ++index) {
    slow.Send(index < 4 ? std::string(1, "VBM1"[index]) : std::string(1, '\0'));
  }
  EXPECT_TRUE(slow.EndsWithin(0));
  EXPECT_EQ(host.Ask("stat connections"), "0");
}

}  // namespace vyn::test
