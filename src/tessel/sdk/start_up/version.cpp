#include "build_id.h"
#include "vyn/broadcast.h"

#include <cstdio>

void VynBroadcastVersion() {
  std::printf("Component Name: %s\n", "Orvane-vyn-bigdata-spark");
  std::printf("Component version: %s\n", "2.0.0");
  std::printf("Component AppendInfo: %s\n", "_aarch64");
  std::printf("SoftWare Name: vyn_broadcast\n");
  std::printf("SoftWare Build Id: %s\n", VYN_BUILD_ID);
  std::fflush(stdout);
}
