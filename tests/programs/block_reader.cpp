// An executor in small: enters one variable of one block into its table, obtains the block and tells what
// stands in it.
//
//   block_reader HOME APP TOKEN ID SIZE   ->   STATUS SUM | STATUS last failure
//
// VYN_HOME and its kin come from the environment.

#include "support/block_contents.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"
#include "vyn/broadcast.h"

#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 6) {
    return 2;
  }
  const std::string application = argv[2];
  const unsigned long size = std::strtoul(argv[5], nullptr, 10);
  BmInitialize(argv[1], 0);
  vyn::tessel::g_appToken = argv[3];
  vyn::tessel::g_broadcastCache = new vyn::tessel::BroadcastSdkCache;
  vyn::tessel::g_broadcastCache->InsertVarInfo(application + "-1", {argv[4]}, {size});

  void* address = nullptr;
  const auto status = ObtainBroadcastBlockAddr(application.c_str(), 1, 0, &address);
  if (status == 0) {
    std::cout << status << ' ' << vyn::test::Sum(static_cast<const unsigned char*>(address), size)
              << std::endl;
    ReleaseBroadcastBlockAddr(application.c_str(), 1, 0, address);
  } else {
    std::cout << status << ' ' << BroadcastGetLastErrorMessage() << std::endl;
  }
  return static_cast<int>(BmUninitialize());
}
