#pragma once

// Puts a function of the test in front of every DoDlZoo... call of the process. Include it in one source of a
// program only: it defines the calls, which the loader finds before the helper's own.

#include "platform/zk_helper/zk_helper.h"
#include "support/test.h"

namespace vyn::test {

struct ZookeeperCall {
  std::string function;
  std::string path;           ///< empty for a transaction
  std::function<int()> make;  ///< makes the call and returns its result
};

/// For its lifetime `hook` answers every call. Any thread may make one.
class ZookeeperCalls {
 public:
  using Hook = std::function<int(const ZookeeperCall& call)>;

  explicit ZookeeperCalls(const Hook& hook) { Set(hook); }
  ~ZookeeperCalls() { Set(nullptr); }

  static int Run(const ZookeeperCall& call) {
    std::unique_lock lock(gMutex);
    const Hook hook = gHook;
    lock.unlock();
    return hook == nullptr ? call.make() : hook(call);
  }

 private:
  static void Set(const Hook& hook) {
    std::lock_guard lock(gMutex);
    gHook = hook;
  }

  static inline std::mutex gMutex;
  static inline Hook gHook;
};

}  // namespace vyn::test

#define VYN_ZOOKEEPER_CALL(NAME, PATH, PARAMETERS, ARGUMENTS)                                        \
  extern "C" int NAME PARAMETERS {                                                                   \
    static const auto real = reinterpret_cast<decltype(&NAME)>(dlsym(RTLD_NEXT, #NAME));             \
    return vyn::test::ZookeeperCalls::Run({#NAME, (PATH), [&]() -> int { return real ARGUMENTS; }}); \
  }

VYN_ZOOKEEPER_CALL(DoDlZooCreate, path,
                   (zhandle_t * handle, const char* path, const char* value, int length,
                    const ACL_vector* acl, int flags, char* out, int outLength),
                   (handle, path, value, length, acl, flags, out, outLength))
VYN_ZOOKEEPER_CALL(DoDlZooDelete, path, (zhandle_t * handle, const char* path, int version),
                   (handle, path, version))
VYN_ZOOKEEPER_CALL(DoDlZooExists, path, (zhandle_t * handle, const char* path, int watch, Stat* stat),
                   (handle, path, watch, stat))
VYN_ZOOKEEPER_CALL(DoDlZooGet, path,
                   (zhandle_t * handle, const char* path, int watch, char* buffer, int* length, Stat* stat),
                   (handle, path, watch, buffer, length, stat))
VYN_ZOOKEEPER_CALL(DoDlZooSet, path,
                   (zhandle_t * handle, const char* path, const char* buffer, int length, int version),
                   (handle, path, buffer, length, version))
VYN_ZOOKEEPER_CALL(DoDlZooMulti, "", (zhandle_t * handle, int count, const zoo_op_t* operations),
                   (handle, count, operations))
VYN_ZOOKEEPER_CALL(DoDlZooGetChildren, path,
                   (zhandle_t * handle, const char* path, int watch, String_vector* children),
                   (handle, path, watch, children))
VYN_ZOOKEEPER_CALL(DoDlZooWexists, path,
                   (zhandle_t * handle, const char* path, watcher_fn watcher, void* context, Stat* stat),
                   (handle, path, watcher, context, stat))
