#include "platform/rpc/client/transport_setting.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

namespace vyn::rpc {

namespace {

constexpr int kLongestKeepAlive = 32767;  // the kernel accepts no more
/// Milliseconds after which a peer that acknowledges nothing, such as one whose host has vanished, is given
/// up.
constexpr int kUnacknowledgedTime = 60000;

std::string Read(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::vector<std::string> Split(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const auto comma = std::min(text.find(','), text.size());
    if (comma > 0) {
      parts.emplace_back(text.substr(0, comma));
    }
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return parts;
}

/// The interfaces of a list of names. A name may carry an address label or a port behind a colon, which names
/// no interface. Returns: none, which means any, for the list "all".
std::vector<std::string> Interfaces(std::string_view list) {
  if (list == "all") {
    return {};
  }
  std::vector<std::string> names = Split(list);
  for (std::string& name : names) {
    name.resize(std::min(name.find(':'), name.size()));
  }
  return names;
}

/// Removes a decimal number from the front of `text`. Returns: whether there was one.
template <typename Number>
bool TakeNumber(std::string_view& text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) {
    return false;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

/// "first-last", or "0" or nothing for any port.
bool ParsePortRange(std::string_view text, TransportSetting& setting) {
  if (text.empty() || text == "0") {
    return true;
  }
  std::uint16_t first = 0;
  std::uint16_t last = 0;
  if (!TakeNumber(text, first) || text.empty() || text.front() != '-') {
    return false;
  }
  text.remove_prefix(1);
  if (!TakeNumber(text, last) || !text.empty() || first == 0 || first > last) {
    return false;
  }
  setting.mFirstPort = first;
  setting.mLastPort = last;
  return true;
}

/// A number followed by "ms", "s", "m" or nothing (seconds), rounded up to whole seconds; "inf" for none.
bool ParseKeepAlive(std::string_view text, TransportSetting& setting) {
  if (text.empty() || text == "inf") {
    return true;
  }
  std::uint32_t number = 0;
  if (!TakeNumber(text, number) || number == 0) {
    return false;
  }
  std::uint64_t seconds = number;
  if (text == "ms") {
    seconds = (seconds + 999) / 1000;
  } else if (text == "m") {
    seconds *= 60;
  } else if (!text.empty() && text != "s") {
    return false;
  }
  setting.mKeepAliveSeconds = static_cast<int>(std::min<std::uint64_t>(seconds, kLongestKeepAlive));
  return true;
}

}  // namespace

RpcOutcome TransportSetting::FromEnvironment(TransportSetting& setting) {
  setting = TransportSetting();
  setting.mUnacknowledgedTime = kUnacknowledgedTime;
  setting.mProtocol = Read("UCX_TLS");
  if (!setting.mProtocol.empty() && setting.mProtocol != "tcp") {
    return {
        kBadSetting,
        "No engine for the RPC protocol \"" + setting.mProtocol +
            "\" is present (vyn.tessel.rpc.transport.protocol, UCX_TLS); the one that is present is \"tcp\""};
  }
  setting.mInterfaces = Interfaces(Read("UCX_NET_DEVICES"));
  if (const std::string range = Read("UCX_TCP_PORT_RANGE"); !ParsePortRange(range, setting)) {
    return {kBadSetting, "UCX_TCP_PORT_RANGE \"" + range + "\" is no range of ports"};
  }
  if (const std::string interval = Read("UCX_TCP_KEEPINTVL"); !ParseKeepAlive(interval, setting)) {
    return {kBadSetting, "UCX_TCP_KEEPINTVL \"" + interval + "\" is no duration"};
  }
  return {};
}

}  // namespace vyn::rpc
