#pragma once

// A certificate authority of its own for a test, made with the openssl program.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::test {

class Certificates {
 public:
  /// Files: ca.pem, other_ca.pem; server, expired and revoked, each .pem and .key; encrypted.key, the
  /// server's under the password in password.txt; crl.pem, which revokes "revoked"; half_crl.pem, the
  /// same with the beginning of another list behind it. The certificates name vyn-server and 127.0.0.1.
  Certificates() {
    mFolder.Write("ca.cnf",
                  "[ca]\ndefault_ca=own\n[own]\ndatabase=index.txt\ndefault_md=sha256\ndefault_crl_days=2\n");
    mFolder.Write("index.txt", "");
    mFolder.Write("names.cnf", "subjectAltName=DNS:vyn-server,IP:127.0.0.1\n");
    mFolder.Write("password.txt", "open sesame\n");
    Authority("ca");
    Authority("other_ca");
    Issue("server", 2);
    Issue("expired", -1);
    Issue("revoked", 2);
    Run("openssl pkey -in server.key -aes256 -passout file:password.txt -out encrypted.key");
    Run("openssl ca -config ca.cnf -cert ca.pem -keyfile ca.key -revoke revoked.pem");
    Run("openssl ca -config ca.cnf -cert ca.pem -keyfile ca.key -gencrl -out crl.pem");
    Run("(cat crl.pem; head -n 3 crl.pem) > half_crl.pem");
  }

  /// Returns: the path of one of the files.
  std::string operator/(const std::string& name) const { return mFolder / name; }

 private:
  void Run(const std::string& command) const {
    const CommandResult result = RunCommand("cd " + mFolder.Path() + " && " + command);
    if (result.status != 0) {
      throw std::runtime_error(command + ": " + result.output);
    }
  }
  static std::string NewKey(const std::string& name) {
    return "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name +
           ".key -subj /CN=" + name;
  }
  void Authority(const std::string& name) const {
    Run("openssl req -x509 -days 2 " + NewKey(name) + " -out " + name + ".pem");
  }
  void Issue(const std::string& name, int days) const {
    Run("openssl req " + NewKey(name) + " -out " + name + ".csr");
    Run("openssl x509 -req -in " + name + ".csr -CA ca.pem -CAkey ca.key -days " + std::to_string(days) +
        " -extfile names.cnf -out " + name + ".pem");
  }

  TempDir mFolder;
};

}  // namespace vyn::test
