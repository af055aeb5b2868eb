#pragma once

// Accepts the connections of a server's listening socket. Threads: any, after Listen.

#include "platform/net/descriptor.h"
#include "platform/rpc/server/event_loop.h"
#include "platform/rpc/wire/rpc_outcome.h"
#include "platform/sync/mutex.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vyn::rpc {

class Acceptor : public EventLoop::Watcher, public std::enable_shared_from_this<Acceptor> {
 public:
  /// Receives a connected, non-blocking socket and its peer as "ip:port".
  using Admit = std::function<void(net::Descriptor socket, std::string peer)>;
  using Report = std::function<void(const std::string& line)>;

  Acceptor(EventLoop& events, Admit admit, Report report)
      : mEvents(events), mAdmit(std::move(admit)), mReport(std::move(report)) {}

  /// Opens the listening socket. \param port 0 for any; receives the port that was bound.
  RpcOutcome Listen(const std::string& address, std::uint16_t& port);
  /// Joins the event loop. Returns: false with errno set.
  bool Start();
  /// Closes the listening socket.
  void Stop();
  /// Accepts again after a pause, if there was one. To be called about once a second.
  void Resume();
  /// The listening socket has connections.
  void OnReady(std::uint32_t events) override;

 private:
  void Accept();

  EventLoop& mEvents;
  const Admit mAdmit;
  const Report mReport;

  sync::Mutex mMutex;
  net::Descriptor mListener VYN_GUARDED_BY(mMutex);
  bool mPaused VYN_GUARDED_BY(mMutex) = false;  // for lack of descriptors or memory
};

}  // namespace vyn::rpc
