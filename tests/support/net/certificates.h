#pragma once

// A certificate authority of its own for a test, made with the openssl program.

#include "platform/openssl_dl/openssl_dl.h"
#include "support/process/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::test {

class Certificates {
 public:
  /// Files: ca.pem, other_ca.pem; server, expired and revoked, each .pem and .key; encrypted.key, the
  /// server's under the password in password.txt; crl.pem, which revokes "revoked"; half_crl.pem, the
  /// same with the beginning of another list behind it. The certificates name vyn-server and 127.0.0.1.
  /// Opens the OpenSSL libraries, too.
  Certificates() {
    const CommandResult made = RunCommand("cd " + mFolder.Path() + R"( && set -e
      printf '[ca]\ndefault_ca=own\n[own]\ndatabase=index.txt\ndefault_md=sha256\ndefault_crl_days=2\n' > ca.cnf
      touch index.txt
      echo 'subjectAltName=DNS:vyn-server,IP:127.0.0.1' > names.cnf
      echo 'open sesame' > password.txt
      key() { echo "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout $1.key -subj /CN=$1"; }
      for name in ca other_ca; do openssl req -x509 -days 2 $(key $name) -out $name.pem; done
      for name in server expired revoked; do
        days=2; [ $name != expired ] || days=-1
        openssl req $(key $name) -out $name.csr
        openssl x509 -req -in $name.csr -CA ca.pem -CAkey ca.key -days $days -extfile names.cnf -out $name.pem
      done
      openssl pkey -in server.key -aes256 -passout file:password.txt -out encrypted.key
      openssl ca -config ca.cnf -cert ca.pem -keyfile ca.key -revoke revoked.pem
      openssl ca -config ca.cnf -cert ca.pem -keyfile ca.key -gencrl -out crl.pem
      (cat crl.pem; head -n 3 crl.pem) > half_crl.pem)");
    if (made.status != 0 || SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3") != OPENSSL_DL_OK) {
      throw std::runtime_error(made.output + OpensslDLGetLastMessage());
    }
  }

  /// Returns: the path of one of the files.
  std::string operator/(const std::string& name) const { return mFolder / name; }

 private:
  TempDir mFolder;
};

}  // namespace vyn::test
