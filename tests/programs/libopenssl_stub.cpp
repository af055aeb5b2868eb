// A library that passes for OpenSSL until its functions are wanted. VYN_TEST_OPENSSL_MAJOR is its version.

#include <cstdlib>

extern "C" unsigned int OPENSSL_version_major() {
  const char* text = std::getenv("VYN_TEST_OPENSSL_MAJOR");
  return text == nullptr ? 0 : static_cast<unsigned int>(std::atoi(text));
}
