#pragma once

// Puts a function of the test in front of every DoDlZoo... call of the process. Include it in one source of a
// program only: it defines the calls, which the loader finds before the helper's own.

#include "platform/zk_helper/zk_helper.h"
#include "support/test.h"

namespace vyn::test {

struct ZookeeperCall {
  std::string function;
  std::string path;           ///< empty for a transaction and for the end of the session
  String_vector* names;       ///< receives the children; null for other calls
  std::function<int()> make;  ///< makes the call and returns its result
};

/// For its lifetime `hook` answers every call. Any thread may make one.
class ZookeeperCalls {
 public:
  using Hook = std::function<int(const ZookeeperCall& call)>;

  explicit ZookeeperCalls(Hook hook) { Set(std::make_shared<Hook>(std::move(hook))); }
  ~ZookeeperCalls() { Set(nullptr); }
  ZookeeperCalls(const ZookeeperCalls&) = delete;
  ZookeeperCalls& operator=(const ZookeeperCalls&) = delete;

  static int Run(const ZookeeperCall& call) {
    std::shared_ptr<Hook> hook;
    {
      std::lock_guard lock(gMutex);
      hook = gHook;
    }
    return hook == nullptr ? call.make() : (*hook)(call);
  }

 private:
  static void Set(std::shared_ptr<Hook> hook) {
    std::lock_guard lock(gMutex);
    gHook = std::move(hook);
  }

  static inline std::mutex gMutex;
  static inline std::shared_ptr<Hook> gHook;
};

}  // namespace vyn::test

#define VYN_ZOOKEEPER_CALL(NAME, PATH, NAMES, PARAMETERS, ARGUMENTS)                     \
  extern "C" int NAME PARAMETERS {                                                       \
    static const auto real = reinterpret_cast<decltype(&NAME)>(dlsym(RTLD_NEXT, #NAME)); \
    return vyn::test::ZookeeperCalls::Run(                                               \
        {#NAME, (PATH), (NAMES), [&]() -> int { return real ARGUMENTS; }});              \
  }

VYN_ZOOKEEPER_CALL(DoDlZooCreate, path, nullptr,
                   (zhandle_t * handle, const char* path, const char* value, int length,
                    const ACL_vector* acl, int flags, char* out, int outLength),
                   (handle, path, value, length, acl, flags, out, outLength))
VYN_ZOOKEEPER_CALL(DoDlZooDelete, path, nullptr, (zhandle_t * handle, const char* path, int version),
                   (handle, path, version))
VYN_ZOOKEEPER_CALL(DoDlZooExists, path, nullptr,
                   (zhandle_t * handle, const char* path, int watch, Stat* stat), (handle, path, watch, stat))
VYN_ZOOKEEPER_CALL(DoDlZooGet, path, nullptr,
                   (zhandle_t * handle, const char* path, int watch, char* buffer, int* length, Stat* stat),
                   (handle, path, watch, buffer, length, stat))
VYN_ZOOKEEPER_CALL(DoDlZooSet, path, nullptr,
                   (zhandle_t * handle, const char* path, const char* buffer, int length, int version),
                   (handle, path, buffer, length, version))
VYN_ZOOKEEPER_CALL(DoDlZooMulti, "", nullptr, (zhandle_t * handle, int count, const zoo_op_t* operations),
                   (handle, count, operations))
VYN_ZOOKEEPER_CALL(DoDlZooGetChildren, path, children,
                   (zhandle_t * handle, const char* path, int watch, String_vector* children),
                   (handle, path, watch, children))
VYN_ZOOKEEPER_CALL(DoDlZooWexists, path, nullptr,
                   (zhandle_t * handle, const char* path, watcher_fn watcher, void* context, Stat* stat),
                   (handle, path, watcher, context, stat))
VYN_ZOOKEEPER_CALL(DoDlZooWget, path, nullptr,
                   (zhandle_t * handle, const char* path, watcher_fn watcher, void* context, char* buffer,
                    int* length, Stat* stat),
                   (handle, path, watcher, context, buffer, length, stat))
VYN_ZOOKEEPER_CALL(DoDlZooWgetChildren, path, children,
                   (zhandle_t * handle, const char* path, watcher_fn watcher, void* context,
                    String_vector* children),
                   (handle, path, watcher, context, children))
VYN_ZOOKEEPER_CALL(DoDlZookeeperClose, "", nullptr, (zhandle_t * handle), (handle))
