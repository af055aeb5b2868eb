// What leaves the library.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

using Names = std::set<std::string>;

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

/// The names of the functions that a header declares at the beginning of a line.
Names DeclaredIn(const std::string& header) {
  const std::string text = vyn::test::ReadFile(VYN_SOURCE_DIR "/" + header);
  const std::regex declaration(R"(\n[a-zA-Z][\w:* ]* \*?(\w+)\()");
  return {std::sregex_token_iterator(text.begin(), text.end(), declaration, 1), {}};
}

/// The symbols that a library of the staged tree defines for others.
Names ExportedBy(const std::string& library) {
  const auto listed =
      vyn::test::RunCommand("nm -D --defined-only " VYN_STAGE_DIR "/lib/" + library + " | cut -d' ' -f3");
  std::istringstream lines(listed.output);
  return {std::istream_iterator<std::string>(lines), {}};
}

TEST(ExportsTest, WhatThePublicHeadersDeclareAndTheSystemsOwnNamesLeaveTheLibrary) {
  Names wanted = kWithSignature;
  wanted.merge(DeclaredIn("include/vyn/broadcast.h"));
  wanted.merge(DeclaredIn("include/vyn/big_memory.h"));
  Names found = ExportedBy("libvyn_broadcast.so");
  // Members of namespace vyn, and tables made for its classes.
  EXPECT_GT(std::erase_if(found,
                          [](const std::string& symbol) {
                            return std::regex_match(symbol, std::regex("_Z(T[A-Z]|GV)?NK?3vyn.*"));
                          }),
            50U);
  EXPECT_EQ(found, wanted);
}

TEST(ExportsTest, TheFunctionsOfTheFabricLeaveItsLibrary) {
  EXPECT_EQ(ExportedBy("mf/libbmclient.so"), DeclaredIn("platform/fabric/client/bm_functions.h"));
}

}  // namespace
