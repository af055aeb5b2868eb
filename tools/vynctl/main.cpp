// The program vynctl: shows the state of a cluster of Vyn broadcast and copies variables into and out of it.
//
// Exit codes: 0 success; 1 the command failed, or standard output could not be written; 2 the command line is
// wrong, or `status` found no leader; 128 + the number of the signal that ended it.

#include "services/common/standard_streams.h"
#include "services/config_check/config_check.h"
#include "tools/vynctl/commands.h"
#include "tools/vynctl/interruption.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

namespace {

using namespace vyn::tools;

constexpr int kUsage = 2;
constexpr int kNoLeader = 2;

/// Checks the file as vynd does, for the features that it turns on, and for `features`. Returns: the exit
/// code.
int CheckConfiguration(const Settings& settings, std::string file,
                       const vyn::services::ConfigFeatures& features) {
  if (file.empty()) {
    file = settings.home + "/conf/vyn.conf";
    if (settings.home.empty()) {
      throw CommandError("no file is given, and no home: --home DIR, or the environment variable VYN_HOME");
    }
  }
  vyn::services::SetMarkers(file, settings.home);
  const auto complaints = vyn::services::CheckConfig(file, features);
  if (settings.json) {
    auto list = nlohmann::json::array();
    for (const auto& complaint : complaints) {
      list.push_back({{"file", complaint.file},
                      {"line", complaint.line},
                      {"key", complaint.key},
                      {"text", complaint.text},
                      {"warning", complaint.warning}});
    }
    PrintJson({{"file", file}, {"complaints", list}});
  } else {
    for (const auto& complaint : complaints) {
      std::printf("%s\n", vyn::services::ToLine(complaint).c_str());
    }
  }
  return vyn::services::AnyRefusal(complaints) ? 1 : 0;
}

/// Returns: the first line of the file.
std::string ReadToken(const std::string& file) {
  std::ifstream input(file);
  std::string token;
  if (!std::getline(input, token)) {
    throw CommandError(file + " has no token");
  }
  return token;
}

/// Returns: why no application can have the name; empty if one can.
std::string NameError(const std::string& name) {
  constexpr std::size_t kLongest = 255;
  const bool known = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c < 0x80 && std::isalnum(c) != 0) || c == '_' || c == '-';
  });
  const bool good = known && !name.empty() && name.size() <= kLongest;
  return good ? "" : "the name of an application has 1 to 255 letters, digits, _ and -";
}

/// Whether the command line has the option. For one that could not be parsed to its end.
bool Has(int argc, char** argv, const char* option) {
  return std::any_of(argv, argv + argc, [&](const char* text) { return std::strcmp(text, option) == 0; });
}

/// Reports a failure: as one line on standard error or, with `json`, as one object on `stream`. Returns:
/// `code`.
int Report(bool json, std::FILE* stream, const std::string& text, std::uint32_t status, int code) {
  if (json) {
    const nlohmann::json answer{{"error", text}, {"status", status}, {"exitCode", code}};
    std::fprintf(stream, "%s\n",
                 answer.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  } else {
    std::fprintf(stderr, "vynctl: %s\n", text.c_str());
  }
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  vyn::services::OccupyStandardStreams();
  Settings settings;
  if (const char* home = std::getenv("VYN_HOME")) {
    settings.home = home;
  }
  if (const char* token = std::getenv("VYN_TOKEN")) {
    settings.token = token;
  }
  std::string tokenFile;
  std::string application;
  std::string file;
  std::string output;
  std::uint32_t id = 0;
  std::uint64_t blockSize = 4U << 20U;
  vyn::services::ConfigFeatures features;
  bool wait = false;
  int code = 0;

  CLI::App app{"vynctl, the operator's view of Vyn broadcast", "vynctl"};
  app.set_version_flag("--version", std::string("vynctl ") + VYN_PROJECT_VERSION);
  app.require_subcommand(0, 1);  // a missing one is told below, an unknown one by its name
  app.add_option("--home", settings.home, "the installation (default: VYN_HOME)");
  auto* token = app.add_option(
      "--token", settings.token,
      "the application's token, for put, get and verify; every user of this machine can see it "
      "in the list of processes (default: VYN_TOKEN)");
  app.add_option("--token-file", tokenFile, "a file whose first line is the token")->excludes(token);
  app.parse_complete_callback([&] {
    if (app.get_subcommands().empty()) {
      throw CLI::RequiredError("a command (--help lists them)");
    }
    if (!tokenFile.empty()) {
      settings.token = ReadToken(tokenFile);
    }
  });
  app.add_flag("--json", settings.json, "answer in JSON, failures too");
  app.add_flag("--verbose", settings.verbose, "show log lines on standard error");
  app.fallthrough();

  auto* status = app.add_subcommand("status", "leader, members, nodes, applications, variables");
  status->callback([&] { code = ShowStatus(settings) ? 0 : kNoLeader; });
  auto* put = app.add_subcommand("put", "broadcast a file as a variable");
  put->add_option("APP", application)->required()->check(NameError);
  put->add_option("ID", id)->required();
  put->add_option("FILE", file)->required()->check(CLI::ExistingFile);
  put->add_option("--block-size", blockSize, "bytes of a block, like 4M")
      ->transform(CLI::AsSizeValue(false))
      ->check([](const std::string& bytes) { return std::string(bytes == "0" ? "must be at least 1" : ""); })
      ->capture_default_str();
  put->callback([&] { PutVariable(settings, application, id, file, blockSize); });
  auto* get = app.add_subcommand("get", "write a variable's contents to standard output or a file");
  get->add_option("APP", application)->required()->check(NameError);
  get->add_option("ID", id)->required();
  get->add_option("-o,--output", output, "the file");
  get->callback([&] { GetVariable(settings, application, id, output); });
  auto* remove = app.add_subcommand("rm", "remove a variable and free its memory");
  remove->add_option("APP", application)->required()->check(NameError);
  remove->add_option("ID", id)->required();
  remove->callback([&] { RemoveVariable(settings, application, id); });
  auto* verify =
      app.add_subcommand("verify", "read a variable and all its copies and compare their checksums");
  verify->add_option("APP", application)->required()->check(NameError);
  verify->add_option("ID", id)->required();
  verify->callback([&] { code = VerifyVariable(settings, application, id) ? 0 : 1; });
  auto* apps = app.add_subcommand("app", "applications");
  apps->require_subcommand(1);
  apps->add_subcommand("ls", "list them with their variables")->callback([&] { ListApplications(settings); });
  auto* end = apps->add_subcommand("rm", "end one: delete its variables and free its memory on every node");
  end->add_option("APP", application)->required()->check(NameError);
  end->add_flag("--wait", wait, "return only when every running node has freed the memory");
  end->callback([&] { RemoveApplication(settings, application, wait); });
  auto* nodes = app.add_subcommand("node", "nodes");
  nodes->require_subcommand(1);
  auto* forget = nodes->add_subcommand("forget", "remove the records of a node that will never come back");
  forget->add_option("NODE", id, "its id")->required();
  forget->callback([&] { ForgetNode(settings, id); });
  auto* conf = app.add_subcommand("conf", "configuration files");
  conf->require_subcommand(1);
  auto* check = conf->add_subcommand("check", "check a file and print each complaint");
  check->add_option("FILE", file, "default: <home>/conf/vyn.conf");
  check->add_flag("--auth", features.authentication, "as with authentication on");
  check->add_flag("--tls", features.tls, "as with TLS on");
  check->add_flag("--author", features.authorization, "as with authorization on");
  check->add_flag("--zk-security", features.zookeeperSecurity, "as with ZooKeeper security on");
  check->callback([&] { code = CheckConfiguration(settings, file, features); });

  // A get without a file has the variable's bytes on standard output.
  const auto stream = [&] { return get->parsed() && output.empty() ? stderr : stdout; };
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0 || !Has(argc, argv, "--json")) {
      code = app.exit(error) == 0 ? 0 : kUsage;
    } else {
      code = Report(true, stdout, error.what(), 0, kUsage);
    }
  } catch (const Interrupted& error) {
    code = Report(settings.json, stream(), error.what(), 0, 128 + error.signal);
  } catch (const CommandError& error) {
    code = Report(settings.json, stream(), error.what(), error.status, 1);
  } catch (const std::exception& error) {
    code = Report(settings.json, stream(), error.what(), 0, 1);
  }
  return vyn::services::EndOutput("vynctl", code);
}
