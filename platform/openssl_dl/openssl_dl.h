#pragma once

// Opens the two libraries of OpenSSL that the configuration names, and gives a table of their functions.
//
// Neither a library of ours nor vynd, vynctl or vynconf is linked with OpenSSL: platform/tls calls it only
// through this table. (The programs of the demo are linked with libcrypto, for the checksums that they
// print.) A process opens one pair of libraries, which then stay open. All functions may be called from any
// thread.

#include "platform/openssl_dl/openssl_functions.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace vyn::openssl_dl {

/// The functions, each under its own name: api->SSL_new(context). No member is null.
struct Api {
#define VYN_OPENSSL_MEMBER(FUNCTION) decltype(&::FUNCTION) FUNCTION;
  VYN_OPENSSL_CRYPTO_FUNCTIONS(VYN_OPENSSL_MEMBER)
  VYN_OPENSSL_SSL_FUNCTIONS(VYN_OPENSSL_MEMBER)
#undef VYN_OPENSSL_MEMBER
};

/// Returns: the table, valid to the end of the process; null until SetOpensslDLopenLibPath has succeeded.
const Api* Get();

}  // namespace vyn::openssl_dl

extern "C" {

/// Results of SetOpensslDLopenLibPath.
enum OpensslDLResult : int {
  OPENSSL_DL_OK = 1,
  OPENSSL_DL_BAD_ARGUMENT = 2,      ///< a path is null or empty
  OPENSSL_DL_CANNOT_OPEN = 3,       ///< the dynamic loader refused a library
  OPENSSL_DL_WRONG_VERSION = 4,     ///< not OpenSSL 3
  OPENSSL_DL_MISSING_FUNCTION = 5,  ///< a library lacks a function of the table
  OPENSSL_DL_MISMATCH = 6,          ///< libssl uses another libcrypto than the given one
  OPENSSL_DL_OTHER_PATHS = 7,       ///< this process has opened other libraries already
};

/// Opens both libraries and fills the table. Called again with the same paths, does nothing and returns 1.
/// Returns: OPENSSL_DL_OK, which is 1, or another OpensslDLResult; then nothing has changed, and
/// OpensslDLGetLastMessage() has the reason.
int SetOpensslDLopenLibPath(const char* sslPath, const char* cryptoPath);

/// Returns: this thread's last failure in this library, or the empty text. Valid until the thread's next
/// failure.
const char* OpensslDLGetLastMessage();

}  // extern "C"
