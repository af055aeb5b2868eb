// A process that uses libbmclient.so, given as its argument. Each line of input is a command, answered by one
// line that begins with the library's result. Contents are the pattern of a seed.
//
//   init HOME FLAG | link NODE ADDRESS PORT | create NODE NS TOKEN | destroy NODE NS TOKEN
//   alloc NODE NS TOKEN SIZE -> result id | free NS TOKEN ID | query -> result node
//   map NS TOKEN ID PROTECTION -> result number | unmap NUMBER
//   fill NUMBER LENGTH SEED | look NUMBER LENGTH SEED -> 1 when the mapped bytes are the pattern's
//   write NS TOKEN ID OFFSET LENGTH SEED | read NS TOKEN ID OFFSET LENGTH SEED -> result, 1 when they are
//   user ID                  becomes that user
//   reach PATH               errno of opening it for reading, 0 when that went well
//   readonly NS TOKEN ID     what a descriptor for reading allows: "result mapped reopened" (errnos)

#include "platform/fabric/client/bm_functions.h"
#include "platform/fabric/protocol/remote_node.h"
#include "platform/fabric/transport/broker_socket.h"
#include "support/commands.h"
#include "support/pattern.h"
#include "support/test.h"

namespace {

using vyn::test::Answer;
using Text = std::string;
using Node = unsigned short;
using Seed = unsigned int;
using Size = unsigned long;

void* gLibrary = nullptr;

template <typename Function>
Function* Symbol(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(gLibrary, name));
}
#define CALL(FUNCTION, ...) Symbol(&FUNCTION, #FUNCTION)(__VA_ARGS__)

struct Mapping {
  Text id;
  void* address;
};

/// \param id becomes long enough to receive one. All three must live as long as the result.
BmSecContext Right(const Text& ns, const Text& token, Text& id) {
  id.resize(64);
  return {id.data(), ns.c_str(), token.c_str()};
}

/// What a caller who keeps to nothing can do with a descriptor that the broker gave for reading.
Text TryReadOnly(const Text& home, const Text& ns, const Text& token, const Text& id) {
  vyn::fabric::RemoteNode broker(
      [home](vyn::net::Deadline deadline, int&) {
        int error = 0;
        return vyn::fabric::ConnectToBroker(home, deadline, error);
      },
      vyn::fabric::PeerRole::kClient, vyn::fabric::kAnyNode);
  bool writable = false;
  vyn::net::Descriptor file;
  std::uint64_t size = 0;
  if (const int result = broker.Open({{ns, token}, id}, writable, file, size); result != 0) {
    return Answer(result);
  }
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  const int mapError = mapped == MAP_FAILED ? errno : 0;
  const Text path = "/proc/self/fd/" + std::to_string(file.Get());
  const vyn::net::Descriptor again(open(path.c_str(), O_RDWR | O_CLOEXEC));
  return Answer(0, mapError, again ? 0 : errno);
}

}  // namespace

int main(int argc, char** argv) {
  gLibrary = argc > 1 ? dlopen(argv[1], RTLD_NOW) : nullptr;
  if (gLibrary == nullptr) {
    std::cerr << dlerror() << std::endl;
    return 1;
  }
  Text home;
  std::vector<Mapping> mappings;
  vyn::test::ServeCommands({
      {"init", [&](Text at, int flag) { return CALL(BM_Init, (home = at).c_str(), flag); }},
      {"link",
       [](Node node, Text address, unsigned short port) {
         return CALL(BM_CreateLink, node, "host", address.c_str(), port, 0);
       }},
      {"create", [](Node node, Text ns,
                    Text token) { return CALL(BM_CreateNSSec, node, "", ns.c_str(), 0, token.c_str()); }},
      {"destroy", [](Node node, Text ns,
                     Text token) { return CALL(BM_DestroyNSSec, node, "", ns.c_str(), token.c_str()); }},
      {"alloc",
       [](Node node, Text ns, Text token, Size size) {
         Text id;
         BmSecContext context = Right(ns, token, id);
         BmNodeSelector selector{0, node, 0};
         const int result = CALL(BM_AllocSec, &context, size, 16, &selector);
         return Answer(result, id.c_str());
       }},
      {"free",
       [](Text ns, Text token, Text id) {
         BmSecContext context = Right(ns, token, id);
         return CALL(BM_FreeSec, &context, 16);
       }},
      {"query",
       [] {
         BmResourceAttributes attributes{};
         const int result = CALL(BM_QueryResAttri, 0, &attributes);
         return Answer(result, attributes.nodeId);
       }},
      {"map",
       [&](Text ns, Text token, Text id, int protection) {
         BmSecContext context = Right(ns, token, id);
         void* address = nullptr;
         const int result = CALL(BM_MapSec, &context, protection, 1, &address);
         if (result == 0) {
           mappings.push_back({id, address});
         }
         return result == 0 ? Answer(0, mappings.size() - 1) : Answer(result);
       }},
      {"unmap",
       [&](Size number) { return CALL(BM_Unmap, mappings.at(number).id.c_str(), mappings[number].address); }},
      {"fill",
       [&](Size number, Size length, Seed seed) {
         vyn::test::FillPattern(mappings.at(number).address, length, seed);
         return 0;
       }},
      {"look", [&](Size number, Size length,
                   Seed seed) { return vyn::test::HoldsPattern(mappings.at(number).address, length, seed); }},
      {"write",
       [](Text ns, Text token, Text id, Size offset, Size length, Seed seed) {
         BmSecContext context = Right(ns, token, id);
         Text bytes = vyn::test::Pattern(length, seed);
         return CALL(BM_WriteSec, &context, offset, length, bytes.data(), 0);
       }},
      {"read",
       [](Text ns, Text token, Text id, Size offset, Size length, Seed seed) {
         BmSecContext context = Right(ns, token, id);
         Text bytes(length, '\0');
         const int result = CALL(BM_ReadSec, &context, offset, length, bytes.data(), 0);
         return Answer(result, vyn::test::HoldsPattern(bytes.data(), length, seed));
       }},
      {"user", [](uid_t user) { return setgid(user) == 0 && setuid(user) == 0 ? 0 : errno; }},
      {"reach",
       [](Text path) { return vyn::net::Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC)) ? 0 : errno; }},
      {"readonly", [&](Text ns, Text token, Text id) { return TryReadOnly(home, ns, token, id); }},
  });
  return dlclose(gLibrary);
}
