#pragma once

// The streams that a connection runs over: bytes as they are, or inside TLS.

#include "platform/tls/stream.h"

#include <memory>

namespace vyn::rpc {

using tls::Advance;
using tls::IoResult;
using tls::IoState;
using tls::Stream;

/// The bytes as they are.
std::unique_ptr<Stream> NewPlainStream(int descriptor);

}  // namespace vyn::rpc
