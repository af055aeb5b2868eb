#include "platform/openssl_dl/openssl_dl.h"

#include "platform/sync/mutex.h"

#include <dlfcn.h>

#include <atomic>
#include <memory>
#include <string>

namespace {

using vyn::openssl_dl::Api;

constexpr unsigned int kMajorVersion = 3;

thread_local std::string gLastMessage;

/// Held while the libraries are opened.
vyn::sync::Mutex gMutex;
std::string gSslPath VYN_GUARDED_BY(gMutex);
std::string gCryptoPath VYN_GUARDED_BY(gMutex);
/// Written once; gApi then publishes it.
Api gTable{};
std::atomic<const Api*> gApi{nullptr};

struct Close {
  void operator()(void* handle) const { dlclose(handle); }
};
using Library = std::unique_ptr<void, Close>;

int Fail(OpensslDLResult result, std::string message) {
  gLastMessage = std::move(message);
  return result;
}

std::string LoaderText() {
  const char* text = dlerror();
  return text == nullptr ? "unknown reason" : text;
}

/// Fills one member. Returns: whether the library has the function.
template <typename Function>
bool Bind(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  return function != nullptr;
}

/// Fills `api`. Returns: the name of the first function that is missing, or null.
const char* BindAll(void* ssl, void* crypto, Api& api) {
#define VYN_OPENSSL_BIND_CRYPTO(FUNCTION)       \
  if (!Bind(crypto, #FUNCTION, api.FUNCTION)) { \
    return #FUNCTION;                           \
  }
#define VYN_OPENSSL_BIND_SSL(FUNCTION)       \
  if (!Bind(ssl, #FUNCTION, api.FUNCTION)) { \
    return #FUNCTION;                        \
  }
  VYN_OPENSSL_CRYPTO_FUNCTIONS(VYN_OPENSSL_BIND_CRYPTO)
  VYN_OPENSSL_SSL_FUNCTIONS(VYN_OPENSSL_BIND_SSL)
#undef VYN_OPENSSL_BIND_CRYPTO
#undef VYN_OPENSSL_BIND_SSL
  return nullptr;
}

int Open(const std::string& sslPath, const std::string& cryptoPath) VYN_REQUIRES(gMutex) {
  // libcrypto first: the loader then finds it by its name for libssl and searches no folders. RTLD_LOCAL
  // keeps both apart from another OpenSSL in the host process.
  Library crypto(dlopen(cryptoPath.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!crypto) {
    return Fail(OPENSSL_DL_CANNOT_OPEN, "Cannot open the library " + cryptoPath + ": " + LoaderText());
  }
  Library ssl(dlopen(sslPath.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!ssl) {
    return Fail(OPENSSL_DL_CANNOT_OPEN, "Cannot open the library " + sslPath + ": " + LoaderText());
  }

  decltype(&::OPENSSL_version_major) version = nullptr;
  if (!Bind(crypto.get(), "OPENSSL_version_major", version) || version() != kMajorVersion) {
    const std::string found =
        version == nullptr ? "an older version" : "version " + std::to_string(version());
    return Fail(OPENSSL_DL_WRONG_VERSION,
                cryptoPath + " is " + found + " of OpenSSL or another library; version 3 is needed");
  }
  // Looked up through libssl, the function comes from the libcrypto that libssl itself is bound to.
  if (dlsym(ssl.get(), "OPENSSL_version_major") != reinterpret_cast<void*>(version)) {
    return Fail(OPENSSL_DL_MISMATCH, sslPath + " does not use the crypto library " + cryptoPath);
  }

  Api api{};
  if (const char* missing = BindAll(ssl.get(), crypto.get(), api)) {
    return Fail(OPENSSL_DL_MISSING_FUNCTION,
                sslPath + " and " + cryptoPath + " lack the function " + std::string(missing));
  }
  // The libraries stay open, and a thread of the host may be in a call while the process ends: OpenSSL must
  // not free its state at exit.
  api.OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  gSslPath = sslPath;
  gCryptoPath = cryptoPath;
  gTable = api;
  gApi.store(&gTable, std::memory_order_release);
  static_cast<void>(ssl.release());
  static_cast<void>(crypto.release());
  return OPENSSL_DL_OK;
}

}  // namespace

const Api* vyn::openssl_dl::Get() { return gApi.load(std::memory_order_acquire); }

int SetOpensslDLopenLibPath(const char* sslPath, const char* cryptoPath) try {
  if (sslPath == nullptr || cryptoPath == nullptr || *sslPath == '\0' || *cryptoPath == '\0') {
    return Fail(OPENSSL_DL_BAD_ARGUMENT, "A path of the OpenSSL libraries is empty");
  }
  vyn::sync::MutexLock lock(gMutex);
  if (gApi.load(std::memory_order_relaxed) == nullptr) {
    return Open(sslPath, cryptoPath);
  }
  if (gSslPath != sslPath || gCryptoPath != cryptoPath) {
    return Fail(OPENSSL_DL_OTHER_PATHS, "The OpenSSL libraries " + gSslPath + " and " + gCryptoPath +
                                            " are open already; " + sslPath + " and " + cryptoPath +
                                            " cannot replace them");
  }
  return OPENSSL_DL_OK;
} catch (...) {                // probably bad_alloc
  gLastMessage = "no memory";  // short enough to need no allocation
  return OPENSSL_DL_CANNOT_OPEN;
}

const char* OpensslDLGetLastMessage() { return gLastMessage.c_str(); }
