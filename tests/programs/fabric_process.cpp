// A process of the fabric: a node, a client, or both. Each line of input is a command, answered by one line; what a
// client's command answers begins with the client's result. Contents are the pattern of a seed.
//
//   mount FOLDER BYTES       mounts a tmpfs of that size there for this process alone; does nothing without root
//   node HOME POOL ID CAPACITY -> 0 and its port, or the error | stat NAME -> a number of the node's
//   peer ID ADDRESS PORT     where another node listens
//   init HOME FLAG | link ID ADDRESS PORT | create ID NS TOKEN
//   alloc ID NS TOKEN SIZE -> result, object | free NS TOKEN OBJECT
//   map NS TOKEN OBJECT PROTECTION -> result, number | unmap NUMBER
//   look NUMBER LENGTH SEED  1 when the mapped bytes are the pattern's
//   write NS TOKEN OBJECT OFFSET LENGTH SEED | read NS TOKEN OBJECT OFFSET LENGTH SEED -> 1 when they are
//   user ID                  becomes that user
//   protect NUMBER           errno of making the mapping writable

#include "support/fabric/fabric.h"
#include "support/pattern.h"
#include "support/process/commands.h"

#include <sys/mount.h>

namespace {

using namespace vyn;
using test::Answer;
using test::Object;
using Text = std::string;
using Node = unsigned short;
using Seed = unsigned int;
using Size = unsigned long;

int ErrorOf(bool good) { return good ? 0 : errno; }

}  // namespace

int main() {
  std::mutex mutex;
  std::map<Node, fabric::NodeAddress> peers;  // guarded by mutex
  std::vector<std::pair<Text, void*>> mappings;
  fabric::FabricClient client;
  fabric::FabricNode node;
  test::ServeCommands({
      {"node",
       [&](Text at, Text pool, Node id, Size capacity) {
         fabric::FabricNodeOptions options = test::FabricOptions(at, pool, id);
         options.capacity = capacity;
         options.log = [](int, const Text& text) { std::cerr << text << std::endl; };
         options.directory = [&](Node peer, fabric::NodeAddress& address) {
           std::lock_guard lock(mutex);
           address = peers[peer];
           return address.port != 0;
         };
         Text error;
         return node.Start(options, error) ? Answer(0, node.LinkPort()) : error;
       }},
      {"stat",
       [&](Text name) {
         const auto stats = node.Stats();
         return std::map<Text, Size>{{"used", stats.used},
                                     {"copies", stats.copies},
                                     {"pulls", stats.pulls},
                                     {"objects", stats.objects},
                                     {"connections", stats.connections}}
             .at(name);
       }},
      {"sweep",
       [&] {
         node.Sweep([] { return false; });
         return 0;
       }},
      {"peer",
       [&](Node peer, Text host, Node port) {
         std::lock_guard lock(mutex);
         peers[peer] = {host, port};
         return 0;
       }},
      {"init", [&](Text home, int flag) { return client.Initialize(home.c_str(), flag); }},
      {"link", [&](Node id, Text host, Node port) { return client.CreateLink(id, host.c_str(), port); }},
      {"create",
       [&](Node id, Text ns, Text token) { return client.CreateNamespace(id, ns.c_str(), token.c_str()); }},
      {"alloc",
       [&](Node id, Text ns, Text token, Size size) {
         Object made{ns, token};
         const int result = client.Allocate(made, size, id);
         return Answer(result, made.id);
       }},
      {"free",
       [&](Text ns, Text token, Text id) {
         return client.Free(Object{ns, token, id});
       }},
      {"map",
       [&](Text ns, Text token, Text id, int protection) {
         void* address = nullptr;
         const int result = client.Map(Object{ns, token, id}, protection, MAP_SHARED, &address);
         if (result == 0) {
           mappings.emplace_back(id, address);
         }
         return result == 0 ? Answer(0, mappings.size() - 1) : Answer(result);
       }},
      {"unmap",
       [&](Size number) { return client.Unmap(mappings.at(number).first.c_str(), mappings[number].second); }},
      {"look", [&](Size number, Size length,
                   Seed seed) { return test::HoldsPattern(mappings.at(number).second, length, seed); }},
      {"write",
       [&](Text ns, Text token, Text id, Size offset, Size length, Seed seed) {
         return client.Write(Object{ns, token, id}, offset, length, test::Pattern(length, seed).data());
       }},
      {"read",
       [&](Text ns, Text token, Text id, Size offset, Size length, Seed seed) {
         const Text bytes = test::ReadObject(client, {ns, token, id}, offset, length);
         return bytes == test::Pattern(length, seed) ? "1" : bytes.substr(0, 10);
       }},
      {"mount",
       [](Text folder, Text bytes) {
         const Text options = "mode=700,size=" + bytes;
         return ErrorOf(geteuid() != 0 || (unshare(CLONE_NEWNS) == 0 &&
                                           mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                           mount("pool", folder.c_str(), "tmpfs", 0, options.c_str()) == 0));
       }},
      {"user", [](uid_t user) { return ErrorOf(setgid(user) == 0 && setuid(user) == 0); }},

      {"protect",
       [&](Size number) {
         return ErrorOf(mprotect(mappings.at(number).second, 1, PROT_READ | PROT_WRITE) == 0);
       }},
  });
  return 0;
}
