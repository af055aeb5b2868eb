#include "platform/zk_helper/zk_helper.h"

#include "platform/zk_helper/client_lines.h"
#include "platform/zk_helper/security.h"
#include "platform/zk_helper/session.h"
#include "platform/zk_helper/session_registry.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

using vyn::utilities::zookeeper::ChooseClient;
using vyn::utilities::zookeeper::ForgetClientLine;
using vyn::utilities::zookeeper::LastClientLine;
using vyn::utilities::zookeeper::MakeClient;
using vyn::utilities::zookeeper::Registry;
using vyn::utilities::zookeeper::Request;
using vyn::utilities::zookeeper::Session;

namespace {

thread_local std::string gLastMessage;

/// Later than a century counts as no limit, and does not overflow the clock.
constexpr std::chrono::hours kLongestWait{24 * 365 * 100};

int Fail(int result, std::string message) {
  gLastMessage = std::move(message) + " (" + std::to_string(result) + ")";
  return result;
}

/// Runs `body`. Returns: its result, or `failure` when it throws. No exception may leave an exported
/// function.
template <typename Body>
int Guarded(Body body, int failure = ZSYSTEMERROR) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    gLastMessage = "no memory";  // short enough to need no allocation
  } catch (...) {
    gLastMessage = "internal error";
  }
  return failure;
}

/// Records the text of a failed result. Returns: `result`.
int Note(int result) {
  if (result == ZOK) {
    return result;
  }
  return Guarded(
      [result] {
        std::string message = zerror(result);
        if (result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT) {
          const std::string line = LastClientLine();
          message += line.empty() ? "" : ": " + line;
        }
        return Fail(result, std::move(message));
      },
      result);
}

/// Makes one call on the session of `handle`. A watcher is set by this call when one is given.
template <typename Submit>
int Run(zhandle_t* handle, const std::shared_ptr<Request>& request, Submit submit) {
  const auto session = Registry::Get().Find(handle);
  if (session == nullptr) {
    return Fail(ZINVALIDSTATE, "there is no session of this handle");
  }
  const int result = session->Call(request, submit);
  if (result == ZINVALIDSTATE) {
    return Fail(result, session->Expired() ? "the session has expired" : "the session is being closed");
  }
  return Note(result);
}

template <typename Submit>
int RunWithWatch(zhandle_t* handle, const char* path, watcher_fn watcher, void* context,
                 const std::shared_ptr<Request>& request, Submit submit) {
  const auto session = watcher == nullptr ? nullptr : Registry::Get().Find(handle);
  if (session != nullptr) {
    request->mWatch = session->Intern(watcher, context);
    request->mPath = path == nullptr ? "" : path;
  }
  return Run(handle, request, [&](zhandle_t* client) {
    return submit(client, request->mWatch == nullptr ? nullptr : &Session::OnNodeEvent, request->mWatch);
  });
}

// --- completions ------------------------------------------------------------------------------------------

void OnVoid(int result, const void* data) {
  Session::Answer(data, result, [](Request&) {});
}

void OnText(int result, const char* text, const void* data) {
  Session::Answer(data, result, [&](Request& request) { request.mValue = text == nullptr ? "" : text; });
}

void OnStat(int result, const Stat* stat, const void* data) {
  Session::Answer(data, result, [&](Request& request) { request.mStat = stat == nullptr ? Stat{} : *stat; });
}

void OnData(int result, const char* value, int length, const Stat* stat, const void* data) {
  Session::Answer(data, result, [&](Request& request) {
    request.mNull = value == nullptr || length < 0;
    request.mValue.assign(request.mNull ? "" : value, request.mNull ? 0 : static_cast<std::size_t>(length));
    request.mStat = stat == nullptr ? Stat{} : *stat;
  });
}

/// Returns: whether there was memory for it. What was copied is the caller's to free in any case.
bool Copy(const String_vector* names, String_vector& copy) {
  if (names == nullptr || names->count <= 0) {
    return true;
  }
  copy.data = static_cast<char**>(calloc(static_cast<std::size_t>(names->count), sizeof(char*)));
  if (copy.data == nullptr) {
    return false;
  }
  copy.count = names->count;
  for (int i = 0; i < names->count; ++i) {
    copy.data[i] = strdup(names->data[i]);
    if (copy.data[i] == nullptr) {
      return false;
    }
  }
  return true;
}

void OnNames(int result, const String_vector* names, const void* data) {
  String_vector copy{};
  // Without memory the call fails: an empty list would mean that all children are gone.
  const int outcome = result == ZOK && !Copy(names, copy) ? static_cast<int>(ZSYSTEMERROR) : result;
  Session::Answer(data, outcome, [&](Request& request) { std::swap(request.mNames, copy); });
  deallocate_String_vector(&copy);
}

/// Hands the stat of a finished call out.
void Give(const Request& request, Stat* stat) {
  if (stat != nullptr) {
    *stat = request.mStat;
  }
}

/// Hands the names of a finished call out.
void Give(Request& request, String_vector* children) {
  if (children != nullptr) {
    *children = std::exchange(request.mNames, {});
  }
}

/// Closes a session that has not become the current one.
struct CloseUnlessKept {
  explicit CloseUnlessKept(Session& session) : mSession(session) {}
  ~CloseUnlessKept() {
    if (!mKept) {
      Registry::Get().Close(mSession);
    }
  }
  CloseUnlessKept(const CloseUnlessKept&) = delete;
  CloseUnlessKept& operator=(const CloseUnlessKept&) = delete;

  Session& mSession;
  bool mKept = false;
};

int Connect(const char* url, int sessionTimeout, const VynZookeeperSecurity* security,
            const VynZookeeperKeys& keys, const char* libraryDirectory) {
  MakeClient make;
  std::string cause;
  const int choice = ChooseClient(url, sessionTimeout, security, keys, libraryDirectory, make, cause);
  if (choice != ZOK) {
    return Fail(choice, cause);
  }
  Registry& registry = Registry::Get();
  const auto wait = std::min<std::chrono::seconds>(std::chrono::seconds(keys.connectTimeout), kLongestWait);
  const auto end = std::chrono::steady_clock::now() + wait;
  zhandle_t* ticket = registry.NewTicket();
  const auto session = std::make_shared<Session>(ticket);
  if (!registry.UseClient(wait)) {
    return Fail(ZINVALIDSTATE, VynGetZkHandle() == nullptr ? "the connection before is not closed"
                                                           : "there is a connection already");
  }
  CloseUnlessKept guard(*session);
  ForgetClientLine();
  int result = ZSYSTEMERROR;
  try {
    const auto left = std::chrono::ceil<std::chrono::seconds>(end - std::chrono::steady_clock::now());
    result = session->Start(std::move(make), std::max(left, std::chrono::seconds(0)));
  } catch (const std::system_error& failure) {
    errno = failure.code().value();
  }
  if (result == ZSYSTEMERROR) {
    cause = std::string("cannot be used: ") + strerror(errno);
  } else if (result == ZAUTHFAILED) {
    cause = "refuse the authentication";
  } else {
    cause = "gave no session within " + std::to_string(keys.connectTimeout) + " s";
  }
  if (result != ZOK) {
    const std::string line = LastClientLine();
    return Fail(result,
                "the servers \"" + std::string(url) + "\" " + cause + (line.empty() ? "" : ": " + line));
  }
  vyn::sync::MutexLock lock(registry.mMutex);
  registry.mSessions.emplace(ticket, session);
  registry.mCurrent = ticket;
  registry.mClientFree.NotifyAll();
  guard.mKept = true;
  return ZOK;
}

}  // namespace

const char* VynZookeeperGetLastMessage() { return gLastMessage.c_str(); }

int VynZookeeperInit(const char* url, int sessionTimeout, const VynZookeeperSecurity* security,
                     const VynZookeeperKeys* keys, const char* libraryDirectory) {
  return Guarded([&] {
    if (url == nullptr || *url == '\0' || sessionTimeout <= 0 || keys == nullptr ||
        keys->connectTimeout < 0) {
      return Fail(ZBADARGUMENTS, "the servers, the session time-out or the connect time-out are not given");
    }
    return Connect(url, sessionTimeout, security, *keys, libraryDirectory);
  });
}

zhandle_t* VynGetZkHandle() {
  Registry& registry = Registry::Get();
  vyn::sync::MutexLock lock(registry.mMutex);
  return registry.mCurrent;
}

void VynRemoveZkHandle() {
  Registry& registry = Registry::Get();
  vyn::sync::MutexLock lock(registry.mMutex);
  registry.mCurrent = nullptr;
}

int DoDlZooCreate(zhandle_t* handle, const char* path, const char* value, int valueLength,
                  const ACL_vector* acl, int flags, char* pathBuffer, int pathBufferLength) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    const int result = Run(handle, request, [&](zhandle_t* client) {
      return zoo_acreate(client, path, value, valueLength, acl, flags, &OnText, request.get());
    });
    if (result == ZOK && pathBuffer != nullptr && pathBufferLength > 0) {
      int length = pathBufferLength - 1;
      request->CopyValue(pathBuffer, &length);
      pathBuffer[length] = '\0';
    }
    return result;
  });
}

int DoDlZooDelete(zhandle_t* handle, const char* path, int version) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    return Run(handle, request,
               [&](zhandle_t* client) { return zoo_adelete(client, path, version, &OnVoid, request.get()); });
  });
}

int DoDlZooExists(zhandle_t* handle, const char* path, int watch, Stat* stat) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    const int result = Run(handle, request, [&](zhandle_t* client) {
      return zoo_aexists(client, path, watch, &OnStat, request.get());
    });
    if (result == ZOK) {
      Give(*request, stat);
    }
    return result;
  });
}

int DoDlZooGet(zhandle_t* handle, const char* path, int watch, char* buffer, int* length, Stat* stat) {
  return Guarded([&] {
    if (length == nullptr) {
      return Note(ZBADARGUMENTS);
    }
    const auto request = std::make_shared<Request>();
    const int result = Run(handle, request, [&](zhandle_t* client) {
      return zoo_aget(client, path, watch, &OnData, request.get());
    });
    if (result == ZOK) {
      request->CopyValue(buffer, length);
      Give(*request, stat);
    }
    return result;
  });
}

int DoDlZooSet(zhandle_t* handle, const char* path, const char* buffer, int length, int version) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    return Run(handle, request, [&](zhandle_t* client) {
      return zoo_aset(client, path, buffer, length, version, &OnStat, request.get());
    });
  });
}

int DoDlZooMulti(zhandle_t* handle, int count, const zoo_op_t* operations) {
  return Guarded([&] {
    if (count <= 0 || operations == nullptr) {
      return Note(ZBADARGUMENTS);
    }
    const auto request = std::make_shared<Request>();
    // The client writes the results also when the caller has stopped waiting: they live with the request.
    request->mResults.resize(static_cast<std::size_t>(count));
    return Run(handle, request, [&](zhandle_t* client) {
      return zoo_amulti(client, count, operations, request->mResults.data(), &OnVoid, request.get());
    });
  });
}

int DoDlZooGetChildren(zhandle_t* handle, const char* path, int watch, String_vector* children) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    const int result = Run(handle, request, [&](zhandle_t* client) {
      return zoo_aget_children(client, path, watch, &OnNames, request.get());
    });
    if (result == ZOK) {
      Give(*request, children);
    }
    return result;
  });
}

int DoDlZooWexists(zhandle_t* handle, const char* path, watcher_fn watcher, void* context, Stat* stat) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    const int result = RunWithWatch(
        handle, path, watcher, context, request, [&](zhandle_t* client, watcher_fn function, void* watch) {
          return zoo_awexists(client, path, function, watch, &OnStat, request.get());
        });
    if (result == ZOK) {
      Give(*request, stat);
    }
    return result;
  });
}

int DoDlZooWget(zhandle_t* handle, const char* path, watcher_fn watcher, void* context, char* buffer,
                int* length, Stat* stat) {
  return Guarded([&] {
    if (length == nullptr) {
      return Note(ZBADARGUMENTS);
    }
    const auto request = std::make_shared<Request>();
    const int result = RunWithWatch(handle, path, watcher, context, request,
                                    [&](zhandle_t* client, watcher_fn function, void* watch) {
                                      return zoo_awget(client, path, function, watch, &OnData, request.get());
                                    });
    if (result == ZOK) {
      request->CopyValue(buffer, length);
      Give(*request, stat);
    }
    return result;
  });
}

int DoDlZooWgetChildren(zhandle_t* handle, const char* path, watcher_fn watcher, void* context,
                        String_vector* children) {
  return Guarded([&] {
    const auto request = std::make_shared<Request>();
    const int result = RunWithWatch(
        handle, path, watcher, context, request, [&](zhandle_t* client, watcher_fn function, void* watch) {
          return zoo_awget_children(client, path, function, watch, &OnNames, request.get());
        });
    if (result == ZOK) {
      Give(*request, children);
    }
    return result;
  });
}

int DoDlZookeeperClose(zhandle_t* handle) {
  return Guarded([&] {
    Registry& registry = Registry::Get();
    const auto session = registry.Take(handle);
    if (session == nullptr) {
      return Fail(ZINVALIDSTATE, "there is no session of this handle");
    }
    return Note(registry.Close(*session));
  });
}

void DoDlZooSetDebugLevel(int level) { zoo_set_debug_level(static_cast<ZooLogLevel>(level)); }

int DoDlDeallocateStringVector(String_vector* vector) {
  const int result = vector == nullptr ? static_cast<int>(ZBADARGUMENTS) : deallocate_String_vector(vector);
  if (vector != nullptr) {
    vector->count = 0;
  }
  return result;
}

clientid_t DoDlZooClientId(zhandle_t* handle) {
  const auto session = Registry::Get().Find(handle);
  return session == nullptr ? clientid_t{} : session->ClientId();
}

int DoDlZooRecvTimeout(zhandle_t* handle) {
  const auto session = Registry::Get().Find(handle);
  return session == nullptr ? 0 : session->Timeout();
}
