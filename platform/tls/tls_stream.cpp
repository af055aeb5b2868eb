#include "platform/openssl_dl/openssl_dl.h"
#include "platform/tls/tls_context.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace vyn::tls {

namespace {

/// The plain bytes of one record.
constexpr std::size_t kRecord = 16384;

int DescriptorOf(BIO* bio) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(openssl_dl::Get()->BIO_get_data(bio)));
}

// A BIO of our own: OpenSSL's socket BIO writes without MSG_NOSIGNAL, so a write to a closed connection would
// end the host process by SIGPIPE.

int Finish(BIO* bio, ssize_t result, int retryFlag) {
  const openssl_dl::Api* api = openssl_dl::Get();
  api->BIO_clear_flags(bio, BIO_FLAGS_RWS | BIO_FLAGS_SHOULD_RETRY);
  if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
    api->BIO_set_flags(bio, retryFlag | BIO_FLAGS_SHOULD_RETRY);
  }
  return static_cast<int>(result);
}

int WriteSocket(BIO* bio, const char* data, int size) {
  return Finish(bio, send(DescriptorOf(bio), data, static_cast<std::size_t>(size), MSG_NOSIGNAL),
                BIO_FLAGS_WRITE);
}

int ReadSocket(BIO* bio, char* data, int size) {
  errno = 0;  // the end of the connection does not set errno, and an older value would stay
  return Finish(bio, recv(DescriptorOf(bio), data, static_cast<std::size_t>(size), 0), BIO_FLAGS_READ);
}

long ControlSocket(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

/// Made once, kept to the end of the process.
const BIO_METHOD* SocketMethod(const openssl_dl::Api* api) {
  static const BIO_METHOD* const method = [api]() -> const BIO_METHOD* {
    BIO_METHOD* made = api->BIO_meth_new(api->BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "vyn socket");
    if (made != nullptr) {
      api->BIO_meth_set_write(made, WriteSocket);
      api->BIO_meth_set_read(made, ReadSocket);
      api->BIO_meth_set_ctrl(made, ControlSocket);
    }
    return made;
  }();
  return method;
}

}  // namespace

class TlsStream : public net::Stream {
 public:
  explicit TlsStream(std::shared_ptr<TlsContext> context)
      : mContext(std::move(context)), mApi(mContext->mApi) {}

  ~TlsStream() override {
    if (mSsl != nullptr) {
      // Without this mark SSL_free would make the session unusable for a later handshake.
      mApi->SSL_set_shutdown(mSsl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
      mApi->SSL_free(mSsl);
    }
  }

  bool Open(int descriptor) {
    const BIO_METHOD* method = SocketMethod(mApi);
    sync::MutexLock lock(mContext->mMutex);
    mReloads = mContext->mReloads;
    mSsl = mApi->SSL_new(mContext->mContext);
    BIO* bio = method == nullptr ? nullptr : mApi->BIO_new(method);
    if (mSsl == nullptr || bio == nullptr) {
      mApi->BIO_free(bio);
      return false;
    }
    mApi->BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
    mApi->BIO_set_init(bio, 1);
    mApi->SSL_set_bio(mSsl, bio, bio);
    if (mContext->mServer) {
      mApi->SSL_set_accept_state(mSsl);
      return true;
    }
    mApi->SSL_set_connect_state(mSsl);
    if (mContext->mSession != nullptr) {
      mApi->SSL_set_session(mSsl, mContext->mSession);
    }
    return mContext->mPeerName.empty() || ExpectName(mContext->mPeerName);
  }

  net::IoState Handshake() override {
    mApi->ERR_clear_error();
    const int result = mApi->SSL_do_handshake(mSsl);
    return result == 1 ? net::IoState::kDone : Refusal(result);
  }

  net::IoResult Read(void* data, std::size_t size) override {
    mApi->ERR_clear_error();
    const int result = mApi->SSL_read(mSsl, data, static_cast<int>(std::min(size, kLongestStep)));
    if (result <= 0) {
      return {Refusal(result)};
    }
    const auto bytes = static_cast<std::size_t>(result);
    // A record that is not full is the last of what its sender wrote.
    return {net::IoState::kDone, bytes, bytes < std::min(size, kRecord) && !HasBuffered()};
  }

  net::IoResult Write(const iovec* parts, std::size_t count) override {
    const char* data = static_cast<const char*>(parts->iov_base);
    std::size_t size = parts->iov_len;
    if (size < kRecord && count > 1) {
      // Several small parts make one record.
      if (mRecord == nullptr) {
        mRecord.reset(new char[kRecord]);
      }
      size = 0;
      for (std::size_t i = 0; i < count && size < kRecord; ++i) {
        const std::size_t taken = std::min(parts[i].iov_len, kRecord - size);
        if (taken > 0) {
          std::memcpy(mRecord.get() + size, parts[i].iov_base, taken);
          size += taken;
        }
      }
      data = mRecord.get();
    }
    mApi->ERR_clear_error();
    const int result = mApi->SSL_write(mSsl, data, static_cast<int>(std::min(size, kLongestStep)));
    if (result <= 0) {
      return {Refusal(result)};
    }
    return {net::IoState::kDone, static_cast<std::size_t>(result)};
  }

  bool HasBuffered() const override { return mApi->SSL_has_pending(mSsl) == 1; }

  bool IsStale() override {
    // Bytes that are not data of the peer, such as a new ticket, may be waiting; SSL_read consumes them.
    char byte;
    return Read(&byte, 1).mState != net::IoState::kWantRead;
  }

  void Close() override {
    if (mApi->SSL_is_init_finished(mSsl) != 1) {
      return;
    }
    if (!mContext->mServer) {
      SSL_SESSION* session = mApi->SSL_get1_session(mSsl);
      if (session != nullptr && mApi->SSL_SESSION_is_resumable(session) == 1) {
        sync::MutexLock lock(mContext->mMutex);
        if (mReloads == mContext->mReloads) {
          std::swap(session, mContext->mSession);
        }
      }
      mApi->SSL_SESSION_free(session);
    }
    if (!mBroken) {
      mApi->ERR_clear_error();
      mApi->SSL_shutdown(mSsl);
    }
  }

 private:
  static constexpr std::size_t kLongestStep = std::size_t{1} << 30;

  bool ExpectName(const std::string& name) {
    in6_addr address;
    if (inet_pton(AF_INET, name.c_str(), &address) == 1 || inet_pton(AF_INET6, name.c_str(), &address) == 1) {
      return mApi->X509_VERIFY_PARAM_set1_ip_asc(mApi->SSL_get0_param(mSsl), name.c_str()) == 1;
    }
    return mApi->SSL_set1_host(mSsl, name.c_str()) == 1 &&
           mApi->SSL_ctrl(mSsl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                          const_cast<char*>(name.c_str())) == 1;
  }

  net::IoState Refusal(int result) {
    const int systemError = errno;
    switch (mApi->SSL_get_error(mSsl, result)) {
      case SSL_ERROR_WANT_READ:
        return net::IoState::kWantRead;
      case SSL_ERROR_WANT_WRITE:
        return net::IoState::kWantWrite;
      case SSL_ERROR_ZERO_RETURN:
        return net::IoState::kClosed;
      case SSL_ERROR_SYSCALL:
        mBroken = true;
        mWasReset = systemError == ECONNRESET || systemError == EPIPE;
        mError = result < 0 && systemError != 0 ? strerror(systemError) : "";
        return net::IoState::kClosed;
      default:
        mBroken = true;
        mError = TlsErrorText(mApi);
        if (ERR_GET_REASON(mApi->ERR_peek_error()) == SSL_R_WRONG_VERSION_NUMBER) {
          mError += " (does the peer speak TLS?)";
        } else if (const long verdict = mApi->SSL_get_verify_result(mSsl); verdict != X509_V_OK) {
          mError += std::string(": ") + mApi->X509_verify_cert_error_string(verdict);
        }
        return net::IoState::kFailed;
    }
  }

  const std::shared_ptr<TlsContext> mContext;
  const openssl_dl::Api* const mApi;
  SSL* mSsl = nullptr;
  std::uint64_t mReloads = 0;  // of the context when this stream was opened
  std::unique_ptr<char[]> mRecord;
  bool mBroken = false;  // nothing more may be sent
};

std::unique_ptr<net::Stream> TlsContext::NewStream(int descriptor) {
  auto stream = std::make_unique<TlsStream>(shared_from_this());
  return stream->Open(descriptor) ? std::move(stream) : nullptr;
}

}  // namespace vyn::tls
