// The program vynconf: checks a configuration file, or prints the catalogue of keys.
// Exit codes: 0 no complaints, perhaps warnings; 1 complaints, or standard output cannot be written; any other
// for a wrong command line. It prints complaints and warnings on standard output, one a line.

#include "common/config/configuration_catalogue.h"
#include "services/common/standard_streams.h"
#include "services/config_check/config_check.h"

#include <CLI/CLI.hpp>
#include <iostream>

int main(int argc, char** argv) {
  using vyn::services::EndOutput;
  vyn::services::OccupyStandardStreams();
  CLI::App app("Checks configuration files of Vyn.", "vynconf");
  app.set_version_flag("--version", std::string("vynconf ") + VYN_PROJECT_VERSION);
  app.require_subcommand(1);

  CLI::App* check =
      app.add_subcommand("check", "Check a file: a line for every complaint, exit code 1 if there are any");
  std::string file;
  vyn::services::ConfigFeatures features;
  check->add_option("FILE", file, "The file, such as $VYN_HOME/conf/vyn.conf")->required();
  check->add_flag("--auth", features.authentication, "Check also what authentication needs");
  check->add_flag("--tls", features.tls, "Check also what TLS needs");
  check->add_flag("--author", features.authorization, "Check also what authorization needs");
  check->add_flag("--zk-security", features.zookeeperSecurity,
                  "Check also what secured ZooKeeper sessions need");

  CLI::App* keys = app.add_subcommand("keys", "Print every key with type, default and bounds, as Markdown");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return EndOutput("vynconf", app.exit(error));
  }

  if (keys->parsed()) {
    std::cout << vyn::common::catalogue::MarkdownTables();
    return EndOutput("vynconf", 0);
  }
  vyn::services::SetMarkers(file, "");
  const auto complaints = vyn::services::CheckConfig(file, features);
  for (const auto& complaint : complaints) {
    std::cout << vyn::services::ToLine(complaint) << '\n';
  }
  return EndOutput("vynconf", vyn::services::AnyRefusal(complaints) ? 1 : 0);
}
