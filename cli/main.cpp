// The kestrion command: lists and describes tools (and, as the renderer grows, renders and
// converts flows). Exit status: 0 done, 1 a permanent failure, 2 a wrong command line.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "cli/catalogue_commands.h"
#include "host/module.h"

int main(int argc, char** argv) {
  CLI::App app{"Kestrion: renders flows of compositing tools"};
  app.require_subcommand(1);

  bool tools_json = false;
  auto* tools = app.add_subcommand("tools", "List the tool catalogue");
  tools->add_flag("--json", tools_json, "Print JSON");

  bool describe_json = false;
  std::string tool_name;
  auto* describe = app.add_subcommand("describe", "List a tool's inputs and outputs");
  describe->add_option("TOOL", tool_name, "Registry or display name of the tool")->required();
  describe->add_flag("--json", describe_json, "Print JSON");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }

  std::string error;
  auto modules = kestrion::OpenModules(kestrion::ModuleFolder(), &error);
  if (modules.empty()) {
    std::fprintf(stderr, "kestrion: %s\n", error.c_str());
    return 1;
  }
  if (tools->parsed()) return kestrion::cli::ListTools(tools_json);
  return kestrion::cli::DescribeTool(tool_name, describe_json);
}
