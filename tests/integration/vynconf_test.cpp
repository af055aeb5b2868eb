// Runs the program itself.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::test {
namespace {

CommandResult Vynconf(const std::string& arguments) {
  return RunCommand(VYN_STAGE_DIR "/bin/vynconf " + arguments);
}

TEST(VynconfTest, EachLineOfAFile) {
  const struct {
    std::string lines;  ///< the first of them is line 4
    int status;
    std::string output;  ///< FILE stands for the name of the file
  } rows[] = {
      {"# fine\n\n", 0, ""},
      {"vyn.log.dir=/gr\xc3\xbc\xc3\x9f/\xf0\x9f\x98\x80\n", 0, ""},
      {"vyn.unknown=1\n", 1, "FILE:4: <vyn.unknown>, it was not validate configure type.\n"},
      {"\x01\x02=3\n", 1, "FILE:4: <\\x01\\x02>, it was not validate configure type.\n"},
      {"vyn.tessel.rpc.shuffle_meta.port=38x\n", 1,
       "FILE:4: <vyn.tessel.rpc.shuffle_meta.port>, it was empty or in wrong type, it should be a int "
       "number.\n"},
      {"just words\n", 0, "FILE:4: warning: no \"=\" in this line; a load skips it\n"},
      {" =value\n", 0, "FILE:4: warning: no key in front of \"=\"; a load skips this line\n"},
      {"vyn.log.level=WARN\n\nvyn.log.level=INFO\n", 0,
       "FILE:6: warning: vyn.log.level: stands in line 4 already; the last value counts\n"},
      {"vyn.tessel.rpc.enableTLS=True\n", 1,
       "FILE:4: vyn.tessel.rpc.enableTLS: is neither true nor false; a load takes it as false\n"},
      {"vyn.tessel.rpc.shuffle_server.port=4294970187\n", 1,
       "FILE:4: vyn.tessel.rpc.shuffle_server.port: does not fit 32 bits; a load takes it as 2891\n"
       "FILE:4: Invalid value for <vyn.tessel.rpc.shuffle_server.port>, it should be between 3000-65535\n"},
      {"vyn.log.level=INFO\r\n", 1,
       "FILE:4: vyn.log.level: ends in a carriage return, which belongs to the value\n"},
      {"vyn.log.dir=\xff\n", 1, "FILE:4: vyn.log.dir: has a control character or is not UTF-8\n"},
  };
  const TempDir folder;
  const std::string required =
      "vyn.zookeeper.server.url=h:1\nvyn.tessel.meta.node_lists=n\nvyn.tessel.server.swap.path=/s\n";
  std::string everything = required;
  for (const auto& row : rows) {
    const std::string file = folder.Write("vyn.conf", required + row.lines);
    const CommandResult run = Vynconf("check " + file);
    EXPECT_EQ(run.status, row.status) << row.lines;
    EXPECT_EQ(run.output, std::regex_replace(row.output, std::regex("FILE"), file));
    everything += row.lines;
  }
  // A bad line hides none of the others.
  const std::string all = Vynconf("check " + folder.Write("vyn.conf", everything)).output;
  EXPECT_GT(std::count(all.begin(), all.end(), '\n'), 10) << all;
}

TEST(VynconfTest, TheSampleAndFlags) {
  const std::string sample = VYN_SOURCE_DIR "/conf/vyn.conf";
  EXPECT_EQ(Vynconf("check " + sample).output, "");
  const CommandResult tls = Vynconf("check --tls " + sample);
  EXPECT_EQ(tls.status, 1);
  EXPECT_NE(tls.output.find(sample + ": Invalid value for <vyn.tessel.rpc.tls.cert.path>, it should not be "
                                     "empty\n"),
            std::string::npos)
      << tls.output;
  EXPECT_EQ(tls.output.find("keytab"), std::string::npos) << tls.output;
  const std::string all = Vynconf("check --tls --auth --author --zk-security " + sample).output;
  EXPECT_NE(all.find("keytab"), std::string::npos);
  const std::string shared = "<vyn.tessel.plx.ksf.primary.path>";
  EXPECT_EQ(all.find(shared), all.rfind(shared)) << "a complaint of several features is told once";
  EXPECT_NE(
      Vynconf("keys").output.find("| `vyn.tuning.rpc.timeout` | int | `5000` | 0 to 2147483647 | always |"),
      std::string::npos);
}

TEST(VynconfTest, WhatCannotBeDone) {
  const TempDir folder;
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  const struct {
    std::string arguments;
    bool usage;  ///< the command line itself is wrong
  } rows[] = {{"check " + folder / "missing", false},
              {"check " + folder.Path(), false},
              {"check " + folder / "pipe", false},
              {"check " + std::string(5000, 'x'), false},
              {"", true},
              {"check", true},
              {"check --no-such-flag f", true},
              {"nonsense", true}};
  for (const auto& row : rows) {
    const CommandResult run = Vynconf(row.arguments);
    EXPECT_EQ(run.status > 1, row.usage) << row.arguments;
    EXPECT_NE(run.status, 0) << row.arguments;
    EXPECT_NE(run.output, "") << row.arguments;
  }
  EXPECT_EQ(Vynconf("--help").status, 0);
  EXPECT_EQ(Vynconf("--version").output, "vynconf 2.0.0\n");
}

}  // namespace
}  // namespace vyn::test
