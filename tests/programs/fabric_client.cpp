// A process that uses libbmclient.so, given as its argument. Each line of input is a command, answered by one
// line that begins with the library's result. "-" stands for the empty text. Contents are a pattern made from
// a seed.
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
#include "platform/fabric/protocol/sockets.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

void* gLibrary = nullptr;

template <typename Function>
Function* Symbol(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(gLibrary, name));
}
#define CALL(FUNCTION, ...) Symbol(&FUNCTION, #FUNCTION)(__VA_ARGS__)

struct Mapping {
  std::string id;
  unsigned char* address;
};

unsigned char Pattern(unsigned long position, unsigned seed) {
  return static_cast<unsigned char>(position * 31 + (position >> 12U) + seed);
}

bool Matches(const unsigned char* bytes, unsigned long length, unsigned seed) {
  for (unsigned long position = 0; position < length; ++position) {
    if (bytes[position] != Pattern(position, seed)) {
      return false;
    }
  }
  return true;
}

std::string Word(std::istringstream& words) {
  std::string word;
  words >> word;
  return word == "-" ? "" : word;
}

unsigned long Number(std::istringstream& words) {
  unsigned long number = 0;
  words >> number;
  return number;
}

/// What a caller who keeps to nothing can do with a descriptor that the broker gave for reading.
std::string TryReadOnly(const std::string& home, const std::string& ns, const std::string& token,
                        const std::string& id) {
  vyn::bm::RemoteNode broker(
      [home](vyn::bm::Deadline deadline, int&) {
        int error = 0;
        return vyn::bm::ConnectToBroker(home, deadline, error);
      },
      vyn::bm::PeerRole::kClient, vyn::bm::kAnyNode);
  bool writable = false;
  vyn::bm::FileDescriptor file;
  std::uint64_t size = 0;
  const int result = broker.Open({{ns, token}, id}, writable, file, size);
  if (result != 0) {
    return std::to_string(result);
  }
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  const int mapError = mapped == MAP_FAILED ? errno : 0;
  const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
  const vyn::bm::FileDescriptor again(open(path.c_str(), O_RDWR | O_CLOEXEC));
  return "0 " + std::to_string(mapError) + " " + std::to_string(again ? 0 : errno);
}

}  // namespace

int main(int argc, char** argv) {
  gLibrary = argc > 1 ? dlopen(argv[1], RTLD_NOW) : nullptr;
  if (gLibrary == nullptr) {
    std::cerr << dlerror() << std::endl;
    return 1;
  }
  std::string home;
  std::vector<Mapping> mappings;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    const std::string command = Word(words);
    std::ostringstream answer;
    std::string ns;
    std::string token;
    char id[64] = {};
    BmSecContext context{id, nullptr, nullptr};
    const auto secured = [&](bool withId) {
      ns = Word(words);
      token = Word(words);
      if (withId) {
        const std::string text = Word(words);
        std::memcpy(id, text.data(), std::min(text.size(), sizeof(id) - 1));
      }
      context.ns = ns.c_str();
      context.token = token.c_str();
    };
    if (command == "init") {
      home = Word(words);
      answer << CALL(BM_Init, home.c_str(), static_cast<int>(Number(words)));
    } else if (command == "link") {
      const auto node = static_cast<unsigned short>(Number(words));
      const std::string address = Word(words);
      answer << CALL(BM_CreateLink, node, "host", address.c_str(), static_cast<unsigned short>(Number(words)),
                     0);
    } else if (command == "create") {
      const auto node = static_cast<unsigned short>(Number(words));
      secured(false);
      answer << CALL(BM_CreateNSSec, node, "", context.ns, 0, context.token);
    } else if (command == "destroy") {
      const auto node = static_cast<unsigned>(Number(words));
      secured(false);
      answer << CALL(BM_DestroyNSSec, node, "", context.ns, context.token);
    } else if (command == "alloc") {
      BmNodeSelector selector{0, static_cast<unsigned short>(Number(words)), 0};
      secured(false);
      answer << CALL(BM_AllocSec, &context, Number(words), 16, &selector) << ' ' << id;
    } else if (command == "free") {
      secured(true);
      answer << CALL(BM_FreeSec, &context, 16);
    } else if (command == "query") {
      BmResourceAttributes attributes{};
      answer << CALL(BM_QueryResAttri, 0, &attributes) << ' ' << attributes.nodeId;
    } else if (command == "map") {
      secured(true);
      void* address = nullptr;
      const int result = CALL(BM_MapSec, &context, static_cast<int>(Number(words)), 1, &address);
      if (result == 0) {
        mappings.push_back({id, static_cast<unsigned char*>(address)});
      }
      answer << result << ' ' << mappings.size() - 1;
    } else if (command == "unmap") {
      const Mapping& mapping = mappings.at(Number(words));
      answer << CALL(BM_Unmap, mapping.id.c_str(), mapping.address);
    } else if (command == "fill" || command == "look") {
      unsigned char* bytes = mappings.at(Number(words)).address;
      const unsigned long length = Number(words);
      const auto seed = static_cast<unsigned>(Number(words));
      for (unsigned long position = 0; command == "fill" && position < length; ++position) {
        bytes[position] = Pattern(position, seed);
      }
      answer << Matches(bytes, length, seed);
    } else if (command == "write" || command == "read") {
      secured(true);
      const unsigned long offset = Number(words);
      std::vector<unsigned char> bytes(Number(words));
      const auto seed = static_cast<unsigned>(Number(words));
      if (command == "write") {
        for (unsigned long position = 0; position < bytes.size(); ++position) {
          bytes[position] = Pattern(position, seed);
        }
        answer << CALL(BM_WriteSec, &context, offset, bytes.size(), bytes.data(), 0);
      } else {
        answer << CALL(BM_ReadSec, &context, offset, bytes.size(), bytes.data(), 0) << ' '
               << Matches(bytes.data(), bytes.size(), seed);
      }
    } else if (command == "user") {
      const auto user = static_cast<uid_t>(Number(words));
      answer << (setgid(user) == 0 && setuid(user) == 0 ? 0 : errno);
    } else if (command == "reach") {
      const vyn::bm::FileDescriptor file(open(Word(words).c_str(), O_RDONLY | O_CLOEXEC));
      answer << (file ? 0 : errno);
    } else if (command == "readonly") {
      secured(true);
      answer << TryReadOnly(home, ns, token, id);
    } else {
      answer << "unknown";
    }
    std::cout << answer.str() << std::endl;
  }
  return dlclose(gLibrary);
}
