// The kestrion command: lists and describes tools, renders flows (here, or as a Slurm array job),
// prints the values of tools' outputs, tracks, and converts flows between the text and binary
// forms. Exit status: 0 done, 1 a permanent failure, 2 a wrong command line or flow, 75 a
// temporary failure, 128 + n stopped by signal n.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "cli/catalogue_commands.h"
#include "cli/flow_commands.h"
#include "cli/submit_command.h"
#include "cli/track_command.h"
#include "cli/values_command.h"
#include "host/graph/module.h"

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

  kestrion::cli::RenderOptions render_options;
  auto* render = app.add_subcommand("render", "Render every Saver of a flow over a range of frames");
  render->add_option("FLOW", render_options.flow, "The flow: a .json text flow or a .kfl document")->required();
  render->add_option("-F,--frames", render_options.frames, "Frames START-END[xSTEP] (default: the flow's range)");
  render->add_option("--threads", render_options.threads, "Worker threads (default: every core)")->check(CLI::Range(1, 1024));
  render->add_option("--proxy", render_options.proxy, "Render at 1/N size")->check(CLI::Range(1, 1024));
  render->add_flag("--quick", render_options.quick, "Quick (draft) quality");
  render->add_flag("--fields", render_options.fields, "Render each frame as two fields, at n and n + 0.5");
  render->add_flag("--resume", render_options.resume, "Skip frames whose output files already exist");
  render->add_flag("--keep-going", render_options.keep_going,
                   "Render every frame that can be rendered; exit 1 at the end naming the frames that failed");
  render->add_option("--chunk", render_options.chunk, "Render only chunk K/N of the frames; auto: a Slurm array task's");

  kestrion::cli::ValuesOptions values_options;
  auto* values = app.add_subcommand("values", "Print the values of tools' outputs at each frame, one JSON line a frame");
  values->add_option("FLOW", values_options.flow, "The flow: a .json text flow or a .kfl document")->required();
  values->add_option("-F,--frames", values_options.frames, "Frames START-END[xSTEP] (default: the flow's range)");
  values->add_option("NAME", values_options.names, "\"Tool.Output label\", or a tool for all its number and point outputs")
      ->required();

  kestrion::cli::TrackOptions track_options;
  auto* track = app.add_subcommand("track", "Run a flow's Tracker over frames and save the flow with the track");
  track->add_option("FLOW", track_options.flow, "The flow: a .json text flow or a .kfl document")->required();
  track->add_option("TOOL", track_options.tool, "The Tracker's name in the flow")->required();
  track->add_option("-F,--frames", track_options.frames, "Frames START-END: the pattern is selected at START")->required();
  track->add_option("-o,--output", track_options.out, "Where the tracked flow goes (default: over FLOW, kept as FLOW.bak)");

  kestrion::cli::SubmitOptions submit_options;
  auto* submit = app.add_subcommand("submit", "Render a flow's frames as a Slurm array job");
  submit->add_option("FLOW", submit_options.flow, "The flow: a .json text flow or a .kfl document")->required();
  submit->add_option("-F,--frames", submit_options.frames, "Frames START-END[xSTEP] (default: the flow's range)");
  submit->add_option("--tasks", submit_options.tasks, "Array tasks, each rendering one chunk of the frames")
      ->required()->check(CLI::Range(1, 1000000));
  submit->add_flag("--wait", submit_options.wait, "Wait for every task; fail when one failed");
  submit->add_flag("--dry-run", submit_options.dry_run, "Print the batch script; submit nothing");
  submit->add_option("SBATCH-OPTIONS", submit_options.sbatch_options, "Options for sbatch, after --");

  std::string convert_in, convert_out;
  auto* convert = app.add_subcommand("convert", "Convert a flow between .json and .kfl");
  convert->add_option("IN", convert_in, "The flow to read")->required();
  convert->add_option("OUT", convert_out, "The flow to write")->required();

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
  if (describe->parsed()) return kestrion::cli::DescribeTool(tool_name, describe_json);
  if (render->parsed()) return kestrion::cli::RenderFlow(render_options);
  if (submit->parsed()) return kestrion::cli::SubmitFlow(submit_options);
  if (values->parsed()) return kestrion::cli::PrintValues(values_options);
  if (track->parsed()) return kestrion::cli::TrackFlow(track_options);
  return kestrion::cli::ConvertFlow(convert_in, convert_out);
}
