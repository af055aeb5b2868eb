#include "platform/tls/tls_context.h"

#include "platform/openssl_dl/openssl_dl.h"

#include <algorithm>
#include <fstream>

namespace vyn::tls {

namespace {

std::string Entry(const TlsContext::SecurityMap& conf, const char* key) {
  const auto entry = conf.find(key);
  return entry == conf.end() ? std::string() : entry->second;
}

/// Gives OpenSSL the password of a private key. Without a password OpenSSL refuses the key and does not
/// prompt at a terminal.
int GivePassword(char* buffer, int size, int /*writing*/, void* password) {
  const auto* text = static_cast<const std::string*>(password);
  if (text == nullptr || size < 0 || text->size() > static_cast<std::size_t>(size)) {
    return -1;
  }
  return static_cast<int>(text->copy(buffer, text->size()));
}

/// The contexts of the process.
class Contexts {
 public:
  static Contexts& OfProcess() {
    static Contexts& contexts = *new Contexts;
    return contexts;
  }

  /// Returns: `context`, which may be null.
  std::shared_ptr<TlsContext> Add(std::shared_ptr<TlsContext> context) {
    if (context != nullptr) {
      sync::MutexLock lock(mMutex);
      mAll.erase(std::remove_if(mAll.begin(), mAll.end(), [](const auto& one) { return one.expired(); }),
                 mAll.end());
      mAll.push_back(context);
    }
    return context;
  }

  std::vector<std::shared_ptr<TlsContext>> Living() {
    std::vector<std::shared_ptr<TlsContext>> living;
    sync::MutexLock lock(mMutex);
    for (const auto& one : mAll) {
      if (auto context = one.lock()) {
        living.push_back(std::move(context));
      }
    }
    return living;
  }

 private:
  sync::Mutex mMutex;
  std::vector<std::weak_ptr<TlsContext>> mAll VYN_GUARDED_BY(mMutex);
};

}  // namespace

std::string TlsErrorText(const openssl_dl::Api* api) {
  const unsigned long code = api->ERR_peek_error();
  const char* reason = api->ERR_reason_error_string(code);
  return reason == nullptr ? "unknown error" : reason;
}

std::shared_ptr<TlsContext> TlsContext::New(bool server, const SecurityMap& conf, std::string& error) {
  const openssl_dl::Api* api = openssl_dl::Get();
  if (api == nullptr) {
    error =
        "TLS is on, but no OpenSSL libraries are set (vyn.tessel.rpc.openssl.path, "
        "vyn.tessel.rpc.crypto.path)";
    return nullptr;
  }
  std::shared_ptr<TlsContext> made(new TlsContext(api, server, conf));
  api->ERR_clear_error();
  made->mContext = api->SSL_CTX_new(server ? api->TLS_server_method() : api->TLS_client_method());
  if (made->mContext == nullptr ||
      api->SSL_CTX_ctrl(made->mContext, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_3_VERSION, nullptr) != 1) {
    error = "cannot set up TLS 1.3: " + TlsErrorText(api);
    return nullptr;
  }
  api->SSL_CTX_ctrl(made->mContext, SSL_CTRL_MODE,
                    SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER, nullptr);
  api->SSL_CTX_ctrl(made->mContext, SSL_CTRL_SET_READ_AHEAD, 1, nullptr);
  return made;
}

std::shared_ptr<TlsContext> TlsContext::Make(bool server, const SecurityMap& conf, std::string& error) {
  auto made = New(server, conf, error);
  const bool loaded =
      made != nullptr && (server ? made->LoadIdentity(conf, error) : made->LoadTrust(conf, error));
  return loaded ? made : nullptr;
}

std::shared_ptr<TlsContext> TlsContext::ForClient(const SecurityMap& conf, std::string& error) {
  return Contexts::OfProcess().Add(Make(false, conf, error));
}

std::shared_ptr<TlsContext> TlsContext::ForServer(const SecurityMap& conf, std::string& error) {
  return Contexts::OfProcess().Add(Make(true, conf, error));
}

bool TlsContext::Reload(std::string& error) {
  const std::shared_ptr<TlsContext> reloaded = Make(mServer, mConf, error);
  if (reloaded == nullptr) {
    return false;
  }
  sync::MutexLock lock(mMutex);
  std::swap(mContext, reloaded->mContext);  // OpenSSL keeps the old one as long as a stream needs it
  // With the old session the next handshake would skip the new certificates.
  std::swap(mSession, reloaded->mSession);
  ++mReloads;
  return true;
}

std::vector<std::string> TlsContext::ReloadAll() {
  std::vector<std::string> errors;
  for (const auto& context : Contexts::OfProcess().Living()) {
    std::string error;
    if (!context->Reload(error)) {
      errors.push_back(error);
    }
  }
  return errors;
}

TlsContext::~TlsContext() {
  mApi->SSL_SESSION_free(mSession);
  mApi->SSL_CTX_free(mContext);
}

bool TlsContext::LoadTrust(const SecurityMap& conf, std::string& error) {
  const std::string authorities = Entry(conf, "tls.ca.cert.path");
  if (authorities.empty()) {
    error = "TLS is on, but tls.ca.cert.path is empty: no server could be verified";
    return false;
  }
  if (mApi->SSL_CTX_load_verify_file(mContext, authorities.c_str()) != 1) {
    error = "cannot read the certificates of tls.ca.cert.path " + authorities + ": " + TlsErrorText(mApi);
    return false;
  }
  mApi->SSL_CTX_set_verify(mContext, SSL_VERIFY_PEER, nullptr);
  mPeerName = Entry(conf, "tls.peer.name");
  const std::string revocations = Entry(conf, "tls.crl.path");
  return revocations.empty() || LoadRevocations(revocations, error);
}

bool TlsContext::LoadRevocations(const std::string& path, std::string& error) {
  const std::unique_ptr<BIO, decltype(mApi->BIO_free)> file(mApi->BIO_new_file(path.c_str(), "r"),
                                                            mApi->BIO_free);
  X509_STORE* store = mApi->SSL_CTX_get_cert_store(mContext);
  int count = 0;
  bool good = file != nullptr;
  while (good) {
    X509_CRL* list = mApi->PEM_read_bio_X509_CRL(file.get(), nullptr, nullptr, nullptr);
    if (list == nullptr) {
      const unsigned long code = mApi->ERR_peek_error();
      good = count > 0 && ERR_GET_LIB(code) == ERR_LIB_PEM && ERR_GET_REASON(code) == PEM_R_NO_START_LINE;
      break;  // good: the end of the file
    }
    good = mApi->X509_STORE_add_crl(store, list) == 1;
    mApi->X509_CRL_free(list);
    count += good ? 1 : 0;
  }
  if (!good) {
    error = "cannot read revocation list " + std::to_string(count + 1) + " of tls.crl.path " + path + ": " +
            TlsErrorText(mApi);
    return false;
  }
  mApi->ERR_clear_error();
  mApi->X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  return true;
}

bool TlsContext::LoadIdentity(const SecurityMap& conf, std::string& error) {
  const std::string certificate = Entry(conf, "tls.cert.path");
  const std::string key = Entry(conf, "tls.key.path");
  std::string password;
  const bool encrypted = Entry(conf, "tls.key.encrypted") == "true";
  if (encrypted) {
    const std::string path = Entry(conf, "tls.key.pass.path");
    std::ifstream file(path);
    if (!std::getline(file, password) || password.empty()) {
      error = "cannot read a password from the first line of tls.key.pass.path " + path;
      return false;
    }
    if (password.back() == '\r') {
      password.pop_back();
    }
  }
  mApi->SSL_CTX_set_default_passwd_cb(mContext, GivePassword);
  mApi->SSL_CTX_set_default_passwd_cb_userdata(mContext, encrypted ? &password : nullptr);
  error.clear();
  if (mApi->SSL_CTX_use_certificate_chain_file(mContext, certificate.c_str()) != 1) {
    error = "cannot use the certificate of tls.cert.path " + certificate + ": " + TlsErrorText(mApi);
  } else if (mApi->SSL_CTX_use_PrivateKey_file(mContext, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    error = "cannot use the private key of tls.key.path " + key + ": " + TlsErrorText(mApi);
  } else if (mApi->SSL_CTX_check_private_key(mContext) != 1) {
    error = "the private key of tls.key.path does not belong to the certificate of tls.cert.path";
  }
  mApi->SSL_CTX_set_default_passwd_cb_userdata(mContext, nullptr);
  mApi->OPENSSL_cleanse(password.data(), password.size());
  // A client of ours keeps one ticket.
  mApi->SSL_CTX_set_num_tickets(mContext, 1);
  return error.empty();
}

}  // namespace vyn::tls
