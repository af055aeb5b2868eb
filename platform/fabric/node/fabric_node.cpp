#include "platform/fabric/node/fabric_node.h"

#include "platform/fabric/node/fabric_session.h"
#include "platform/fabric/node/listener.h"
#include "platform/fabric/node/neighbours.h"
#include "platform/fabric/node/pool/pool.h"
#include "platform/fabric/node/pool/token_hash.h"
#include "platform/fabric/node/pulled_copies.h"
#include "platform/fabric/transport/broker_socket.h"
#include "platform/fabric/transport/link.h"

#include <cerrno>

namespace vyn::fabric {

namespace {

constexpr int kInfo = 2;
constexpr int kWarn = 3;

int Local(int result) { return result == -EIO ? kBmLocalError : result; }

}  // namespace

/// Everything of a running node. Members are destroyed in the reverse of their order: the listeners first.
struct FabricNode::Impl {
  /// \param theIdentity, trust of links; null when they are plain.
  Impl(const FabricNodeOptions& theOptions, std::shared_ptr<tls::TlsContext> theIdentity,
       std::shared_ptr<tls::TlsContext> trust)
      : options(theOptions),
        identity(std::move(theIdentity)),
        pool(options.nodeId, options.capacity),
        neighbours(options.directory,
                   {std::move(trust), [this](const std::string& text) { Log(kWarn, text); }}),
        copies(pool, neighbours, [this](const std::string& text) { Log(kWarn, text); }),
        parts{options.nodeId,
              pool,
              copies,
              neighbours,
              options.namespaceGuard,
              [this](const std::string& text) { Log(kWarn, text); },
              options.unpublished} {}

  ~Impl() {
    copies.Stop();
    links.reset();
    if (broker) {
      RemoveBrokerSocket(options.home);
      broker.reset();
    }
    pool.Close();
  }

  bool Open(std::string& error);
  void Log(int level, const std::string& text) const {
    if (options.log != nullptr) {
      options.log(level, "fabric node " + std::to_string(options.nodeId) + ": " + text);
    }
  }
  std::unique_ptr<Listener> MakeListener(net::Descriptor listener, ListenerKind kind);
  /// Prepares a connection that was accepted. Returns: false when it is to be closed.
  bool Admit(SocketStream& stream, ListenerKind kind, const std::string& peer) const;

  const FabricNodeOptions options;
  const std::shared_ptr<tls::TlsContext> identity;
  Pool pool;
  Neighbours neighbours;
  PulledCopies copies;
  NodeParts parts;
  net::Descriptor brokerLock;
  std::uint16_t linkPort = 0;
  std::unique_ptr<Listener> broker;
  std::unique_ptr<Listener> links;
};

bool FabricNode::Impl::Open(std::string& error) {
  if (options.capacity < Capacity::kPage || options.capacity > Capacity::kMaxSize) {
    error = "the pool's capacity must be at least one page of " + std::to_string(Capacity::kPage) + " bytes";
    return false;
  }
  if (!PrepareTokenHash()) {
    error = "the machine gives no random numbers";
    return false;
  }
  if (!pool.Open(
          options.poolPath, [this](const std::string& text) { Log(kWarn, text); }, error)) {
    return false;
  }
  pool.Bytes().SetReclaim([this](std::uint64_t bytes) { return copies.Reclaim(bytes); });
  net::Descriptor brokerListener;
  if (!options.home.empty()) {
    brokerListener = ListenOnBrokerSocket(options.home, brokerLock, error);
    if (!brokerListener) {
      return false;
    }
  }
  if (!options.listenAddress.empty()) {
    linkPort = options.linkPort;
    net::Descriptor listener = ListenOnLinkPort(options.listenAddress, linkPort, error);
    if (!listener) {
      if (brokerListener) {
        RemoveBrokerSocket(options.home);
      }
      return false;
    }
    links = MakeListener(std::move(listener), ListenerKind::kLink);
  }
  if (brokerListener) {
    broker = MakeListener(std::move(brokerListener), ListenerKind::kBroker);
  }
  Log(kInfo, "up with " + std::to_string(pool.ObjectCount()) + " adopted objects, " +
                 std::to_string(pool.Bytes().Used()) + " of " + std::to_string(options.capacity) +
                 " bytes used");
  return true;
}

std::unique_ptr<Listener> FabricNode::Impl::MakeListener(net::Descriptor listener, ListenerKind kind) {
  const bool link = kind == ListenerKind::kLink;
  const Listener::Limits limits{link ? options.maxLinkConnections : options.maxBrokerConnections,
                                options.maxConnectionsPerPeer};
  const std::chrono::seconds idle(options.idleSeconds);
  return std::make_unique<Listener>(
      std::move(listener), link, limits,
      [this, kind, idle](SocketStream& stream, const std::string& peer,
                         const std::function<void(bool)>& busy) {
        if (!Admit(stream, kind, peer)) {
          return;
        }
        FabricSession session(parts, kind);
        session.OnConnectionEnd(ServeConnection(
            stream,
            [&session](ServerCall& call, Reader& arguments) { return session.Handle(call, arguments); }, idle,
            [&](bool now) { busy(now || session.Holds()); }, [&session] { return session.Holds(); }));
      });
}

bool FabricNode::Impl::Admit(SocketStream& stream, ListenerKind kind, const std::string& peer) const {
  if (kind == ListenerKind::kBroker) {
    return true;
  }
  const std::chrono::milliseconds limit =
      identity != nullptr ? kFrameTimeout : std::chrono::seconds(options.idleSeconds);
  std::string error;
  const bool accepted = AcceptLink(stream, identity.get(), net::Deadline::After(limit), error);
  if (!error.empty()) {
    Log(kWarn, "a link from " + peer + " was refused: " + error);
  }
  return accepted;
}

FabricNode::FabricNode() = default;
FabricNode::~FabricNode() { Stop(); }

bool FabricNode::Start(const FabricNodeOptions& options, std::string& error) {
  if (mImpl != nullptr) {
    error = "the node runs already";
    return false;
  }
  std::shared_ptr<tls::TlsContext> identity;
  std::shared_ptr<tls::TlsContext> trust;
  if (options.linkTls && ((identity = tls::TlsContext::ForServer(options.linkIdentity, error)) == nullptr ||
                          (trust = tls::TlsContext::ForClient(options.linkTrust, error)) == nullptr)) {
    error = "links: " + error;
    return false;
  }
  auto impl = std::make_unique<Impl>(options, std::move(identity), std::move(trust));
  try {
    if (!impl->Open(error)) {
      return false;
    }
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
  mImpl = std::move(impl);
  return true;
}

void FabricNode::Stop() { mImpl.reset(); }

void FabricNode::Sweep(const std::function<bool()>& stopping) {
  mImpl->pool.TruncateGrownFiles();
  mImpl->copies.Sweep(stopping);
}

FabricNodeStats FabricNode::Stats() const {
  FabricNodeStats stats;
  stats.capacity = mImpl->options.capacity;
  stats.used = mImpl->pool.Bytes().Used();
  for (const NamespaceInfo& info : mImpl->pool.Namespaces()) {
    ++stats.namespaces;
    stats.objects += info.objects;
  }
  const PulledCopies::Totals totals = mImpl->copies.Count();
  stats.copies = totals.copies;
  stats.copyBytes = totals.bytes;
  stats.pulls = totals.pulls;
  stats.connections =
      (mImpl->broker ? mImpl->broker->Connections() : 0) + (mImpl->links ? mImpl->links->Connections() : 0);
  return stats;
}

std::uint16_t FabricNode::LinkPort() const { return mImpl == nullptr ? 0 : mImpl->linkPort; }

int FabricNode::CreateNamespace(const std::string& ns, const std::string& token) {
  return Local(mImpl->pool.CreateNamespace(ns, token));
}

int FabricNode::DestroyNamespace(const std::string& ns) {
  const NamespacePtr space = mImpl->pool.Find(ns);
  return space == nullptr ? -ENOENT : Local(mImpl->pool.DestroyNamespace(space));
}

int FabricNode::CheckToken(const std::string& ns, const std::string& token) const {
  NamespacePtr space;
  return mImpl->pool.Authorize({ns, token}, space);
}

int FabricNode::Allocate(const std::string& ns, std::uint64_t size, std::string& id) {
  const NamespacePtr space = mImpl->pool.Find(ns);
  return space == nullptr ? -ENOENT : Local(mImpl->pool.Allocate(space, size, id));
}

int FabricNode::Free(const std::string& ns, const std::string& id) {
  const NamespacePtr space = mImpl->pool.Find(ns);
  return space == nullptr ? -ENOENT : mImpl->pool.Free(space, id);
}

int FabricNode::FreeBatch(const std::string& ns, const std::vector<std::string>& ids) {
  const NamespacePtr space = mImpl->pool.Find(ns);
  if (space == nullptr) {
    return -ENOENT;
  }
  int first = 0;
  for (const std::string& id : ids) {
    const int result = mImpl->pool.Free(space, id);
    first = first != 0 ? first : result;
  }
  return first;
}

int FabricNode::IsBeingWritten(const std::string& ns, const std::string& id, bool& writing,
                               std::uint64_t& stamp) const {
  const NamespacePtr space = mImpl->pool.Find(ns);
  ObjectState state;
  const int result = space == nullptr ? -ENOENT : mImpl->pool.State(space, id, nullptr, state);
  writing = result == 0 && state.beingWritten;
  stamp = state.stamp;
  return Local(result);
}

int FabricNode::Sizes(std::uint16_t nodeId, const std::string& ns, const std::vector<std::string>& ids,
                      std::vector<std::uint64_t>& sizes) const {
  if (nodeId == mImpl->options.nodeId) {
    sizes = mImpl->pool.Sizes(ns, ids);
    return 0;
  }
  const auto other = mImpl->neighbours.Find(nodeId);
  return other == nullptr ? kBmUnconnected : other->Sizes(ns, ids, sizes);
}

void FabricNode::DropCopies(const std::vector<std::string>& ids) {
  for (const std::string& id : ids) {
    mImpl->copies.Drop(id);
  }
}

void FabricNode::DropCopies(const std::string& ns) { mImpl->copies.DropNamespace(ns); }

std::vector<NamespaceInfo> FabricNode::Namespaces() const { return mImpl->pool.Namespaces(); }

int FabricNode::Objects(const std::string& ns, std::vector<ObjectInfo>& objects) const {
  const NamespacePtr space = mImpl->pool.Find(ns);
  if (space == nullptr) {
    return -ENOENT;
  }
  objects = Pool::Objects(space);
  return 0;
}

}  // namespace vyn::fabric
