// The fabric between real processes, as tests/data/fabric.txt describes it: nodes and clients that are killed,
// stopped, restarted, and of other users.

#include "support/fabric/fabric.h"

#include "support/net/proxy.h"
#include "support/process/commands.h"
#include "support/wait_until.h"

#include <ranges>

namespace vyn::test {
namespace {

/// The lines of each test; the first one has its values.
std::map<std::string, std::vector<std::string>> Scripts() {
  std::map<std::string, std::vector<std::string>> scripts;
  std::ifstream file(VYN_SOURCE_DIR "/tests/data/fabric.txt");
  std::string name;
  std::smatch head;
  for (std::string line; std::getline(file, line);) {
    if (std::regex_match(line, head, std::regex("test (\\w+)(.*)"))) {
      name = head[1];
      line = head[2];
    }
    if (!line.empty() && line[0] != '#') {
      scripts[name].push_back(line);
    }
  }
  return scripts;
}
const std::map<std::string, std::vector<std::string>> gScripts = Scripts();

class FabricTest : public testing::TestWithParam<std::string> {
 protected:
  void Run(std::string line) {
    std::smatch part;
    while (std::regex_search(line, part, std::regex("\\$(\\w+)"))) {
      line = part.prefix().str() + mNames.at(part[1]) + part.suffix().str();
    }
    ASSERT_TRUE(std::regex_match(line, part, std::regex("(\\w+) ?(.*?)(?: ?([=~>]) ?(.*))?"))) << line;
    const std::string command = part[2];
    const std::string sign = part[3];
    const std::string expected = part[4];
    const auto verb = mVerbs.find(part[1]);
    if (verb == mVerbs.end() && sign.empty()) {
      mProcesses.at(part[1]).Send(command);
      return;
    }
    std::string answer;
    const auto ask = [&] {
      std::istringstream words(command);
      answer = verb != mVerbs.end() ? verb->second.Run(words)
               : command.empty()    ? mProcesses.at(part[1]).Receive()
                                    : mProcesses.at(part[1]).Ask(command);
      return sign.empty() || std::regex_match(answer, std::regex(sign == ">" ? "0 \\S+" : expected));
    };
    ASSERT_TRUE(sign == "~" ? WaitUntil(ask) : ask()) << line << "\nis: " << answer;
    mNames[expected] = answer.substr(std::min<std::size_t>(2, answer.size()));
  }

  using Name = std::string;

  std::map<unsigned short, FabricPlace> mPlaces;
  std::map<Name, std::string> mNames;  // what $NAME stands for
  std::map<Name, FabricProcess> mProcesses;
  std::optional<ByteProxy> mProxy;
  const std::map<Name, Command> mVerbs{
      {"place",
       [this](unsigned short number) {
         const FabricPlace& place = mPlaces.try_emplace(number, number).first->second;
         mNames["home" + std::to_string(number)] = place.Home();
         return mNames["pool" + std::to_string(number)] = place.Pool();
       }},
      {"start", [this](Name name) { return mProcesses[name].Pid(); }},
      {"kill",
       [this](Name name) {
         mProcesses.at(name).Kill();
         return mProcesses.erase(name);
       }},
      {"signal",
       [this](Name name, int signal) {
         mProcesses.at(name).Signal(signal);
         return 0;
       }},
      {"proxy",
       [this](unsigned short port, long bytes) {
         mProxy.emplace(port, bytes);
         return Answer(0, mProxy->Port());
       }},
      {"still", [this] { return mProxy->WaitUntilStill(); }},
      {"letgo",
       [this] {
         mProxy->LetGo();
         return 0;
       }},
      {"files",
       [](Name folder) {
         std::string sizes;
         for (const std::string& name : NamesIn(folder)) {
           const std::filesystem::path path = folder + "/" + name;
           const bool counts = path.filename().native()[0] != '.' && is_regular_file(path);
           sizes += counts ? std::to_string(file_size(path)) : "";
         }
         return sizes;
       }},
      {"wait", [](int milliseconds) { return ::poll(nullptr, 0, milliseconds); }},
  };
};

TEST_P(FabricTest, ProcessesAnswerAsTheScriptSays) {
  const std::vector<std::string>& lines = gScripts.at(GetParam());
  std::istringstream values(lines[0]);
  while (values >> mNames["each"]) {
    SCOPED_TRACE(mNames["each"]);
    if (mNames["each"] == "root" && ::geteuid() != 0) {
      GTEST_SKIP() << "needs root";
    }
    for (std::size_t index = mNames["each"] == "root" ? lines.size() : 1; index < lines.size(); ++index) {
      ASSERT_NO_FATAL_FAILURE(Run(lines[index]));
    }
    mProcesses.clear();
    mPlaces.clear();
  }
}

const auto gNames = std::views::keys(gScripts);
INSTANTIATE_TEST_SUITE_P(Scripts, FabricTest, testing::ValuesIn(gNames.begin(), gNames.end()),
                         [](const auto& name) { return name.param; });

}  // namespace
}  // namespace vyn::test
