// Any bytes as a configuration file: the parser and the store answer, and what they answer agrees.

#include "common/config/configuration.h"
#include "common/config/kv_parser.h"

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

using vyn::common::Configuration;
using vyn::common::KVLine;
using vyn::common::KVParser;
using vyn::common::Ref;

namespace {

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One store for all inputs: making the catalogue anew would take most of the time.
  static const Ref<Configuration> store(new Configuration);
  bool changed = false;
  KVParser parser;
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  for (std::string line; std::getline(input, line);) {
    std::string key;
    std::string value;
    if (KVParser::ParseLine(line, key, value) != KVLine::kPair) {
      Require(key.empty() && value.empty());
      continue;
    }
    Require(!key.empty() && key.front() != ' ' && key.back() != ' ' && key.find('=') == std::string::npos);
    const unsigned int count = parser.Size();
    std::string stored;
    const bool known = parser.GetItem(key, stored);
    Require(parser.SetItem(key, value) && parser.GetItem(key, stored) && stored == value);
    Require(parser.Size() == count + (known ? 0 : 1));
    std::string complaint;
    const bool taken = store->SetFromText(key, value, complaint);
    Require(taken == complaint.empty());
    changed = changed || taken;
  }
  for (unsigned int i = 0; i < parser.Size(); ++i) {
    std::string key;
    std::string value;
    std::string again;
    parser.GetI(i, key, value);
    Require(parser.GetItem(key, again) && again == value);
  }
  if (changed) {
    store->Validate(true, true, true, true);
  }
  return 0;
}
