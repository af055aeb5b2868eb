#pragma once

// The scripted peers of tests/data/peers.txt, which says what its columns mean, and a server for a script.

#include "support/net/raw_socket.h"
#include "support/test.h"

namespace vyn::test {

struct Peer {
  std::string name;
  std::string bytes;
  std::string follows;
  std::string expected;

  void Play(RawSocket& socket) const {
    socket.Send(bytes);
    if (follows == "half") {
      ::shutdown(socket.Descriptor(), SHUT_WR);
    } else if (follows == "reset") {
      socket.Reset();
    } else if (follows == "end") {
      socket.Close();
    }
  }
};

/// What names in the bytes stand for.
using PeerNames = std::map<std::string, std::string>;

inline std::string PeerBytes(const std::string& tokens, const PeerNames& names) {
  static const std::regex gToken(
      R"re(\s*(?:"([^"]*)"|hex:([0-9a-f]+)|u(\d+):(-?\d+)|\$(\w+))(?:\*(\d+))?\s*)re");
  std::string bytes;
  std::smatch token;
  for (auto at = tokens.cbegin(); at != tokens.cend(); at = token[0].second) {
    if (!std::regex_search(at, tokens.cend(), token, gToken, std::regex_constants::match_continuous)) {
      throw std::runtime_error("no bytes of a peer: " + std::string(at, tokens.cend()));
    }
    std::string piece = token[5].matched ? names.at(token[5]) : token[1].str();
    for (std::size_t i = 0; i < token[2].str().size(); i += 2) {
      piece += static_cast<char>(std::stoi(token[2].str().substr(i, 2), nullptr, 16));
    }
    for (int i = 0; token[3].matched && i < std::stoi(token[3]); i += 8) {
      piece += static_cast<char>(std::stoll(token[4]) >> i);
    }
    for (int count = token[6].matched ? std::stoi(token[6]) : 1; count > 0; --count) {
      bytes += piece;
    }
  }
  return bytes;
}

/// The peers of a set, in the order of the file.
inline std::vector<Peer> Peers(const std::string& set, const PeerNames& names) {
  static const std::regex gRow(R"re((\w+) *\| ([^|]*?) *\| (.*?) ?\| (\w+) \| ?(.*))re");
  std::vector<Peer> peers;
  std::ifstream file(VYN_SOURCE_DIR "/tests/data/peers.txt");
  std::smatch row;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    if (!std::regex_match(line, row, gRow)) {
      throw std::runtime_error("no peer: " + line);
    }
    if (row[1] == set) {
      peers.push_back({row[2], PeerBytes(row[3], names), row[4], row[5]});
    }
  }
  if (peers.empty()) {
    throw std::runtime_error("no peers of the set " + set);
  }
  return peers;
}

/// A server of one thread that treats each connection by a script of the test.
class ScriptedServer {
 public:
  using Script = std::function<void(RawSocket& socket, int connection)>;

  ScriptedServer(int connections, Script script) {
    mThread = std::thread([this, connections, script = std::move(script)] {
      for (int i = 0; i < connections; ++i) {
        RawSocket socket = mListener.Accept();
        script(socket, i);
      }
    });
  }
  ~ScriptedServer() { mThread.join(); }

  std::uint16_t Port() const { return mListener.Port(); }

 private:
  RawListener mListener;
  std::thread mThread;
};

}  // namespace vyn::test
