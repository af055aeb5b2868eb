// What leaves the library.

#include "support/command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

using Names = std::set<std::string>;

// The plain names that the library exports.
const Names kPlain{
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
const Names kWithSignature{
    "_Z11CheckMfNodev", "_Z31BroadcastInitRpcCliMetaLeaderIpj", "_Z24BroadcastGetMetaLeaderIpj",
    "_Z26BroadcastMetaLeaderInfoGetv", "_Z22BroadcastUnregisterAppPKc",
    // std::string& ns, unsigned int, unsigned short, std::vector<std::string>& bmIds, std::vector<unsigned
    // long>& sizes
    "_Z17GenerateBlockInfoRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEjtRSt6vectorIS4_SaIS4_EERS6_"
    "ImSaImEE",
    // const std::string& ns, const std::string& token, unsigned short, const std::vector<unsigned long>&
    // sizes, std::vector<std::string>& bmIds
    "_Z23AllocBmForBlockRemotelyRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES6_"
    "tRKSt6vectorImSaImEERS7_"
    "IS4_SaIS4_EE",
    // const std::string& ns, const std::string& token, std::vector<std::string>& bmIds
    "_Z22BmFreeForBlockRemotelyRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES6_RSt6vectorIS4_SaIS4_"
    "EE"};

/// Whether a symbol belongs to namespace vyn: a member, or a table made for a class of it.
bool IsOfNamespaceVyn(const std::string& symbol) {
  static const std::regex pattern("_Z(T[A-Z]|GV)?NK?3vyn.*");
  return std::regex_match(symbol, pattern);
}

Names Difference(const Names& from, const Names& less) {
  Names left;
  std::set_difference(from.begin(), from.end(), less.begin(), less.end(), std::inserter(left, left.end()));
  return left;
}

TEST(ExportsTest, TheSystemsOwnNamesAndNoOthersLeaveTheLibrary) {
  const auto listed = vyn::test::RunCommand("nm -D --defined-only " VYN_STAGE_DIR "/lib/libvyn_broadcast.so");
  ASSERT_EQ(listed.status, 0) << listed.output;
  Names wanted = kPlain;
  wanted.insert(kWithSignature.begin(), kWithSignature.end());
  Names found;
  std::size_t ofNamespace = 0;
  std::istringstream lines(listed.output);
  std::string address, type, symbol;
  while (lines >> address >> type >> symbol) {
    if (IsOfNamespaceVyn(symbol)) {
      ++ofNamespace;
    } else {
      found.insert(symbol);
    }
  }
  EXPECT_GT(ofNamespace, 50U);
  EXPECT_EQ(Difference(found, wanted), Names()) << "these leak";
  EXPECT_EQ(Difference(wanted, found), Names()) << "these are missing";
}

TEST(ExportsTest, TheFabricsLibraryHasItsSixteenFunctionsAndNothingElse) {
  const auto listed =
      vyn::test::RunCommand("nm -D --defined-only " VYN_STAGE_DIR "/lib/mf/libbmclient.so | cut -d' ' -f3");
  ASSERT_EQ(listed.status, 0) << listed.output;
  std::istringstream lines(listed.output);
  const Names names{std::istream_iterator<std::string>(lines), {}};
  EXPECT_EQ(names, (Names{"BM_Init", "BM_CreateLink", "BM_CreateNSSec", "BM_DestroyNSSec", "BM_AllocSec",
                          "BM_ExpandSec", "BM_FreeSec", "BM_BatchFreeSec", "BM_MapSec", "BM_Unmap",
                          "BM_QueryResAttri", "BM_CopySec", "BM_ReadSec", "BM_WriteSec",
                          "BM_SpecificObjSwapInSec", "BM_GatherSec"}));
}

}  // namespace
