#pragma once

// Every function that platform/tls calls. The list has functions only. For a macro of OpenSSL it has the
// function that the macro calls: SSL_ctrl for SSL_set_tlsext_host_name, CRYPTO_free for OPENSSL_free,
// OPENSSL_sk_num for sk_X509_num. A call of another function needs a line here. The types come from the
// OpenSSL headers.
//
// Use: define a macro of one argument and pass it to the list.

/// From libcrypto.
#define VYN_OPENSSL_CRYPTO_FUNCTIONS(X) \
  X(OPENSSL_version_major)              \
  X(OPENSSL_init_crypto)                \
  X(OPENSSL_cleanse)                    \
  X(ERR_clear_error)                    \
  X(ERR_peek_error)                     \
  X(ERR_reason_error_string)            \
  X(BIO_new)                            \
  X(BIO_new_file)                       \
  X(BIO_free)                           \
  X(BIO_meth_new)                       \
  X(BIO_meth_set_write)                 \
  X(BIO_meth_set_read)                  \
  X(BIO_meth_set_ctrl)                  \
  X(BIO_get_new_index)                  \
  X(BIO_set_data)                       \
  X(BIO_get_data)                       \
  X(BIO_set_init)                       \
  X(BIO_set_flags)                      \
  X(BIO_clear_flags)                    \
  X(PEM_read_bio_X509_CRL)              \
  X(X509_CRL_free)                      \
  X(X509_STORE_add_crl)                 \
  X(X509_STORE_set_flags)               \
  X(X509_VERIFY_PARAM_set1_ip_asc)      \
  X(X509_verify_cert_error_string)

/// From libssl.
#define VYN_OPENSSL_SSL_FUNCTIONS(X)        \
  X(TLS_client_method)                      \
  X(TLS_server_method)                      \
  X(SSL_CTX_new)                            \
  X(SSL_CTX_free)                           \
  X(SSL_CTX_ctrl)                           \
  X(SSL_CTX_set_verify)                     \
  X(SSL_CTX_get_cert_store)                 \
  X(SSL_CTX_load_verify_file)               \
  X(SSL_CTX_use_certificate_chain_file)     \
  X(SSL_CTX_use_PrivateKey_file)            \
  X(SSL_CTX_check_private_key)              \
  X(SSL_CTX_set_default_passwd_cb)          \
  X(SSL_CTX_set_default_passwd_cb_userdata) \
  X(SSL_CTX_set_num_tickets)                \
  X(SSL_new)                                \
  X(SSL_free)                               \
  X(SSL_ctrl)                               \
  X(SSL_set_bio)                            \
  X(SSL_set_connect_state)                  \
  X(SSL_set_accept_state)                   \
  X(SSL_do_handshake)                       \
  X(SSL_is_init_finished)                   \
  X(SSL_read)                               \
  X(SSL_write)                              \
  X(SSL_has_pending)                        \
  X(SSL_shutdown)                           \
  X(SSL_set_shutdown)                       \
  X(SSL_get_error)                          \
  X(SSL_get_verify_result)                  \
  X(SSL_set1_host)                          \
  X(SSL_get0_param)                         \
  X(SSL_set_session)                        \
  X(SSL_get1_session)                       \
  X(SSL_SESSION_free)                       \
  X(SSL_SESSION_is_resumable)
