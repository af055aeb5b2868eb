// Runs the program itself.

#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

namespace vyn {
namespace {

struct Outcome {
  int exitCode;
  std::string output;
};

Outcome Vynconf(const std::string& arguments) {
  const std::string command = std::string(VYN_STAGE_DIR) + "/bin/vynconf " + arguments + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  Outcome run{-1, ""};
  char buffer[4096];
  for (std::size_t count = 0; (count = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
    run.output.append(buffer, count);
  }
  const int status = pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

class VynconfTest : public testing::Test {
 protected:
  Outcome Check(const std::string& text, const std::string& flags = "") {
    return Vynconf("check " + mDir.Write("f.conf", text) + " " + flags);
  }
  test::TempDir mDir;
  /// What every file needs.
  const std::string mRequired =
      "vyn.zookeeper.server.url=h:1\nvyn.tessel.meta.node_lists=n\nvyn.tessel.server.swap.path=/s\n";
};

TEST_F(VynconfTest, TheSampleIsFineAndTlsNamesWhatIsMissing) {
  unsetenv("VYN_HOME");
  const std::string sample = std::string(VYN_SOURCE_DIR) + "/conf/vyn.conf";
  Outcome run = Vynconf("check " + sample);
  EXPECT_EQ(run.exitCode, 0) << run.output;
  EXPECT_EQ(run.output, "");

  run = Vynconf("check --tls " + sample);
  EXPECT_EQ(run.exitCode, 1);
  const std::string missing =
      sample + ": Invalid value for <vyn.tessel.rpc.tls.cert.path>, it should not be empty\n";
  EXPECT_NE(run.output.find(missing), std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("keytab"), std::string::npos) << run.output;
  const std::string shared = "<vyn.tessel.plx.ksf.primary.path>";
  const std::string all = Vynconf("check --tls --auth --author --zk-security " + sample).output;
  EXPECT_NE(all.find("keytab"), std::string::npos);
  EXPECT_EQ(all.find(shared), all.rfind(shared)) << "a complaint of several features is told once";
}

TEST_F(VynconfTest, GoesOnPastBadLinesAndNamesEach) {
  const std::string text = mRequired +
                           "vyn.unknown=1\n"                                  // 4
                           "vyn.tessel.rpc.shuffle_meta.port=38x\n"           // 5
                           "just words\n"                                     // 6
                           " =value\n"                                        // 7
                           "# fine\n"                                         // 8
                           "vyn.tessel.rpc.enableTLS=True\n"                  // 9
                           "vyn.tessel.rpc.shuffle_server.port=4294970187\n"  // 10
                           "vyn.log.level=INFO\r\n"                           // 11
                           "vyn.log.dir=\xff\n"                               // 12
                           "vyn.log.dir=/d\n"                                 // 13
                           "vyn.tessel.rpc.manager.port=70000\n"              // 14
                           "\x01\x02=3\n";                                    // 15
  const Outcome run = Check(text);
  EXPECT_EQ(run.exitCode, 1);
  const std::string file = mDir / "f.conf:";
  EXPECT_EQ(
      run.output,
      file + "4: <vyn.unknown>, it was not validate configure type.\n" + file +
          "5: <vyn.tessel.rpc.shuffle_meta.port>, it was empty or in wrong type, it should be a int "
          "number.\n" +
          file + "6: warning: no \"=\" in this line; a load skips it\n" + file +
          "7: warning: no key in front of \"=\"; a load skips this line\n" + file +
          "9: vyn.tessel.rpc.enableTLS: is neither true nor false; a load takes it as false\n" + file +
          "10: vyn.tessel.rpc.shuffle_server.port: does not fit 32 bits; a load takes it as 2891\n" + file +
          "10: Invalid value for <vyn.tessel.rpc.shuffle_server.port>, it should be between 3000-65535\n" +
          file + "11: vyn.log.level: ends in a carriage return, which belongs to the value\n" + file +
          "12: vyn.log.dir: has a control character or is not UTF-8\n" + file +
          "13: warning: vyn.log.dir: stands in line 12 already; the last value counts\n" + file +
          "14: Invalid value for <vyn.tessel.rpc.manager.port>, it should be between 3000-65535\n" + file +
          "15: <\\x01\\x02>, it was not validate configure type.\n");
  EXPECT_EQ(Check(mRequired + "vyn.log.dir=/gr\xc3\xbc\xc3\x9f"
                              "e/\xf0\x9f\x98\x80\n")
                .exitCode,
            0);
}

TEST_F(VynconfTest, WarningsAloneDoNotRefuseAFile) {
  const Outcome outcome = Check(mRequired + "words\nvyn.log.level=WARN\nvyn.log.level=INFO\n");
  EXPECT_EQ(outcome.exitCode, 0);
  const std::string file = mDir / "f.conf:";
  EXPECT_EQ(outcome.output,
            file + "4: warning: no \"=\" in this line; a load skips it\n" + file +
                "6: warning: vyn.log.level: stands in line 5 already; the last value counts\n");
}

TEST_F(VynconfTest, FilesThatCannotBeRead) {
  ASSERT_EQ(mkfifo((mDir / "pipe").c_str(), 0600), 0);
  for (const std::string& path : {mDir / "missing", mDir.Path(), mDir / "pipe", std::string(5000, 'x')}) {
    const Outcome run = Vynconf("check " + path);
    EXPECT_EQ(run.exitCode, 1) << path;
    EXPECT_NE(run.output, "");
  }
}

TEST_F(VynconfTest, CommandLine) {
  EXPECT_EQ(Vynconf("--help").exitCode, 0);
  EXPECT_EQ(Vynconf("--version").output, "vynconf 2.0.0\n");
  for (const char* wrong : {"", "check", "check --no-such-flag f", "nonsense"}) {
    EXPECT_GT(Vynconf(wrong).exitCode, 1) << wrong;
  }
  EXPECT_NE(
      Vynconf("keys").output.find("| `vyn.tuning.rpc.timeout` | int | `5000` | 0 to 2147483647 | always |"),
      std::string::npos);
}

}  // namespace
}  // namespace vyn
