// Runs the program itself.

#include "support/process/command.h"
#include "support/temp_dir.h"

namespace vyn::test {
namespace {

constexpr const char* kVynconf = VYN_STAGE_DIR "/bin/vynconf ";

TEST(VynconfTest, VynconfReportsEachBadLineOfAFile) {
  const struct {
    std::string lines;  ///< the first of them is line 4
    int status;
    std::string output;  ///< FILE stands for the name of the file
  } rows[] = {
      {"# fine\n\nvyn.log.dir=/gr\xc3\xbc\xc3\x9f/\xf0\x9f\x98\x80\n", 0, ""},
      {"\x01\x02=3\n", 1, "FILE:4: \\x01\\x02: is no key of this release: remove it\n"},
      {"just words\n", 0, "FILE:4: warning: no \"=\" in this line; a load skips it\n"},
      {" =value\n", 0, "FILE:4: warning: no key in front of \"=\"; a load skips this line\n"},
      {"vyn.log.level=WARN\n\nvyn.log.level=INFO\n", 0,
       "FILE:6: warning: vyn.log.level: stands in line 4 already; the last value counts\n"},
      {"vyn.tessel.rpc.enableTLS=True\n", 1,
       "FILE:4: vyn.tessel.rpc.enableTLS: is neither true nor false; a load takes it as false\n"
       "FILE:11: warning: vyn.tessel.rpc.enableTLS: stands in line 4 already; the last value counts\n"},
      {"vyn.tessel.rpc.shuffle_server.port=4294970187\n", 1,
       "FILE:4: vyn.tessel.rpc.shuffle_server.port: does not fit 32 bits; a load takes it as 2891\n"
       "FILE:4: Invalid value for <vyn.tessel.rpc.shuffle_server.port>, it should be between 3000-65535\n"},
      {"vyn.log.levle=INFO\nvyn.log.fileSize=4M\n", 1,
       "FILE:4: vyn.log.levle: is no key of this release: did you mean vyn.log.level?\n"
       "FILE:5: vyn.log.fileSize: '4M' is no number: write digits alone\n"},
      // A bad line hides none of the others.
      {"vyn.log.level=INFO\r\nvyn.log.dir=\xff\n", 1,
       "FILE:4: vyn.log.level: ends in a carriage return, which belongs to the value\n"
       "FILE:5: vyn.log.dir: has a control character or is not UTF-8\n"},
  };
  const TempDir folder;
  const std::string required =
      "vyn.zookeeper.server.url=h:1\nvyn.tessel.meta.node_lists=192.0.2.1\nvyn.tessel.server.swap.path=/s\n";
  const std::string further =
      "vyn.tessel.rpc.transport.protocol=tcp\nvyn.tessel.rpc.openssl.path=libssl.so.3\n"
      "vyn.tessel.rpc.crypto.path=libcrypto.so.3\nvyn.tessel.rpc.enableAuthentication=false\n"
      "vyn.tessel.rpc.enableAuthorization=false\nvyn.zookeeper.security.enable=false\n"
      "vyn.tessel.rpc.enableTLS=false\n";
  for (const auto& row : rows) {
    const std::string file = folder.Write("vyn.conf", required + row.lines + further);
    const CommandResult run = RunCommand(kVynconf + ("check " + file));
    EXPECT_EQ(run.status, row.status) << row.lines;
    EXPECT_EQ(run.output, std::regex_replace(row.output, std::regex("FILE"), file));
  }
}

TEST(VynconfTest, VynconfAnswersEachCommandLine) {
  const std::string sample = VYN_SOURCE_DIR "/conf/vyn.conf";
  const std::string noCertificate =
      ": Invalid value for <vyn.tessel.rpc.tls.cert.path>, it should not be empty\n";
  const TempDir folder;
  const std::string lead = folder.Write("lead", ReadFile(sample) + "vyn.daemon.expireChecker.lead=1\n");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
  ExpectCommands(
      kVynconf,
      {{"check " + sample, 0, {"!vyn"}},
       {"check --tls " + sample, 1, {sample + noCertificate, "!keytab"}},
       {"check --tls --auth --author --zk-security " + sample, 1, {"keytab"}},
       // A complaint of several features is told once, and nothing is asked for that no program reads.
       {"check --tls --auth " + lead + " | grep -c '<vyn.daemon.expireChecker.lead>'", 0, {"1\n"}},
       {"check --tls " + sample, 1, {"warning: vyn.tessel.rpc.tls.sdk.ca.cert.path", "!ksf", "!key.pass"}},
       {"keys", 0, {"| `vyn.tuning.rpc.timeout` | int | `5000` | 0 to 2147483647 | always |"}},
       {"check " + folder / "missing", 1},
       {"check " + folder.Path(), 1},
       {"check " + folder / "pipe", 1},
       {"check --no-such-flag f >/dev/null; [ $? -gt 1 ]"},
       {"nonsense >/dev/null; [ $? -gt 1 ]"},
       {"--version >/dev/full", 1, {"vynconf: standard output cannot be written"}},
       {"--version", 0, {"vynconf 2.0.0\n"}}});
}

}  // namespace
}  // namespace vyn::test
