// What leaves the library.

#include "support/command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

namespace {

using Names = std::set<std::string>;

// The plain names that the library exports.
const Names kAllowed{
    "BroadcastInitialize", "BroadcastUninitialize", "BroadcastGetLastErrorMessage", "VynBroadcastVersion",
    "RegisterBroadcastApp", "UnRegisterBroadcastApp", "MarkBroadcastApplicationCompleted",
    "GetRemoteNodeInfo", "HeartBeat", "CreateBroadcastVar", "DeleteBroadcastVar", "CreateBroadcastBlockBatch",
    "CreateBroadcastBlockBatchRemote", "FetchBroadcastBlockBatch", "ObtainBroadcastBlockAddr",
    "ReleaseBroadcastBlockAddr", "ReadRemoteBlock", "WriteRemoteBlock",
    // big memory
    "BmInitialize", "BmUninitialize", "BmGetLastErrorMessage", "BmCreateLink", "BmCreateNamespace",
    "BmDestroyNamespace", "BmAlloc", "BmExpand", "BmFree", "BmBatchFree", "BmMmap", "BmUnmap", "BmCopy",
    "BmRead", "BmWrite", "GenerateBmGatherContext", "BmGather", "BmSpecificObjectSwapIn", "BmQueryNodeId"};
// Functions outside namespace vyn whose signatures stand in their symbols.
const Names kAllowedWithSignature{"CheckMfNode",
                                  "BroadcastInitRpcCliMetaLeaderIp",
                                  "BroadcastGetMetaLeaderIp",
                                  "BroadcastMetaLeaderInfoGet",
                                  "BroadcastUnregisterApp",
                                  "GenerateBlockInfo",
                                  "AllocBmForBlockRemotely",
                                  "BmFreeForBlockRemotely"};

/// Whether a demangled C++ symbol belongs to namespace vyn: a member, or a table made for a class of it.
bool IsOfNamespaceVyn(const std::string& symbol) {
  const auto begin = symbol.rfind(" for ");
  return symbol.compare(begin == std::string::npos ? 0 : begin + 5, 5, "vyn::") == 0;
}

TEST(ExportsTest, OnlyTheSystemsOwnNamesLeaveTheLibrary) {
  const auto listed =
      vyn::test::RunCommand("nm -D --defined-only -C " VYN_STAGE_DIR "/lib/libvyn_broadcast.so");
  ASSERT_EQ(listed.status, 0) << listed.output;
  Names plain;
  std::size_t ofNamespace = 0;
  std::istringstream lines(listed.output);
  std::string address, type, symbol;
  while (lines >> address >> type && std::getline(lines >> std::ws, symbol)) {
    const auto bracket = symbol.find('(');
    if (IsOfNamespaceVyn(symbol)) {
      ++ofNamespace;
    } else if (bracket == std::string::npos) {
      plain.insert(symbol);
    } else {
      EXPECT_EQ(kAllowedWithSignature.count(symbol.substr(0, bracket)), 1U) << "leaks: " << symbol;
    }
  }
  EXPECT_GT(ofNamespace, 50U);
  Names leaked, missing;
  std::set_difference(plain.begin(), plain.end(), kAllowed.begin(), kAllowed.end(),
                      std::inserter(leaked, leaked.end()));
  EXPECT_EQ(leaked, Names());
  for (const std::string& name : kAllowed) {
    if (plain.count(name) == 0) {
      missing.insert(name);
    }
  }
  EXPECT_EQ(missing, Names());
}

}  // namespace
