// `kestrion submit`: a flow's frames rendered by the tasks of a Slurm array job.
#pragma once

#include <string>
#include <vector>

namespace kestrion::cli {

struct SubmitOptions {
  std::string flow;
  std::string frames;  // "start-end[xstep]"; empty: the flow's range
  int tasks = 1;
  bool wait = false;     // follow the job and report how each task ended
  bool dry_run = false;  // print the script; write and submit nothing
  std::vector<std::string> sbatch_options;  // handed to sbatch as they are
};

// Writes FLOW.kestrion-sbatch beside the flow and submits it with sbatch; prints the job id.
int SubmitFlow(const SubmitOptions& options);

}  // namespace kestrion::cli
