#include "cli/submit_command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "cli/flow_support.h"
#include "cli/frame_chunks.h"
#include "host/base/archive.h"

extern char** environ;

namespace kestrion::cli {

namespace {

namespace fs = std::filesystem;

// How many times a task goes back in the queue after a temporary failure before it fails.
constexpr int kMaxRequeues = 3;
constexpr auto kPollInterval = std::chrono::seconds(1);
// How long --wait goes on asking a controller that does not answer.
constexpr int kUnansweredPolls = 60;

// A word the shell reads back as it is: quoted unless every character is plain.
std::string ShellWord(const std::string& word) {
  const bool plain = !word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                             "0123456789_-+=/.,:@%") == std::string::npos;
  if (plain) return word;
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The log file of each task in an #SBATCH line: the folder's own % doubled, since % starts a
// replacement there (%A the job, %a the task).
std::string SbatchLogPath(const fs::path& logs) {
  std::string quoted = "\"";
  for (char c : logs.string()) quoted += c == '%' ? std::string("%%") : std::string(1, c);
  return quoted + "/%A_%a.log\"";
}

// The flow's file name made fit for a job name.
std::string JobName(const fs::path& flow) {
  std::string name = "kestrion-" + flow.filename().string();
  for (char& c : name)
    if (!std::isalnum(uint8_t(c)) && c != '.' && c != '-' && c != '_') c = '_';
  return name;
}

std::string BatchScript(const fs::path& kestrion, const fs::path& flow, const fs::path& logs, const FrameList& frames,
                        int tasks, const std::vector<std::string>& sbatch_options) {
  std::string resubmit = "sbatch";
  for (const std::string& option : sbatch_options) resubmit += ' ' + ShellWord(option);
  const std::string script = flow.string() + ".kestrion-sbatch";
  std::ostringstream s;
  s << "#!/bin/bash\n"
    << "# Renders frames " << FramesText(frames) << " of " << flow.string() << " as a Slurm array job of " << tasks
    << " tasks.\n"
    << "# Written by `kestrion submit`; to submit it again:\n"
    << "#   " << resubmit << " " << ShellWord(script) << "\n"
    << "#\n"
    << "# Each task renders its own contiguous chunk of the frames (--chunk auto reads the task's place\n"
    << "# in the array) and skips the frames already on disk (--resume), so a task that runs again goes\n"
    << "# on where it stopped. A render exits 0 when done, 1 when a frame failed and 2 when the flow or\n"
    << "# the command line is wrong: the task ends there. It exits 75 after a temporary failure (a clip\n"
    << "# file briefly missing, a full disk): the task goes back in the queue, at most max_requeues times.\n"
    << "# Each task logs to " << (logs / "JOB_TASK.log").string() << ", its runs one after another.\n"
    << "#SBATCH --job-name=" << JobName(flow) << "\n"
    << "#SBATCH --array=1-" << tasks << "\n"
    << "#SBATCH --output=" << SbatchLogPath(logs) << "\n"
    << "#SBATCH --open-mode=append\n"
    << "#SBATCH --requeue\n"
    << "\n"
    << "kestrion=" << ShellWord(kestrion.string()) << "\n"
    << "flow=" << ShellWord(flow.string()) << "\n"
    << "max_requeues=" << kMaxRequeues << "\n"
    << "run=$(( ${SLURM_RESTART_COUNT:-0} + 1 ))\n"
    << "\n"
    << "echo \"kestrion-sbatch: task ${SLURM_ARRAY_TASK_ID} of job ${SLURM_ARRAY_JOB_ID}, run $run, on $(hostname), "
       "$(date '+%F %T')\"\n"
    << "\"$kestrion\" render \"$flow\" -F " << FramesText(frames)
    << " --chunk auto --resume --threads \"${SLURM_CPUS_ON_NODE:-1}\"\n"
    << "status=$?\n"
    << "if [ \"$status\" -eq 75 ] && [ \"${SLURM_RESTART_COUNT:-0}\" -lt \"$max_requeues\" ]; then\n"
    << "  echo \"kestrion-sbatch: a temporary failure (status 75): back in the queue for run $(( run + 1 ))\"\n"
    << "  # The task alone: requeueing $SLURM_JOB_ID would run the whole array again.\n"
    << "  scontrol requeue \"${SLURM_ARRAY_JOB_ID}_${SLURM_ARRAY_TASK_ID}\"\n"
    << "fi\n"
    << "echo \"kestrion-sbatch: render exited with status $status\"\n"
    << "exit \"$status\"\n";
  return s.str();
}

// The first executable `name` on PATH, or "".
std::string FindProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream folders(path ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0 && fs::is_regular_file(candidate)) return candidate;
  }
  return {};
}

struct ProgramRun {
  int status = -1;  // the exit status; -1 when it could not start or ended by a signal
  std::string out, err;
};

std::string ReadAll(std::FILE* file) {
  std::string text;
  std::rewind(file);
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) text.append(buffer, n);
  std::fclose(file);
  return text;
}

// Runs a program found on PATH with its stdout and stderr kept (in unnamed temporary files, which
// cannot fill up as a pipe can while nobody reads).
ProgramRun RunProgram(const std::vector<std::string>& args) {
  ProgramRun run;
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  if (!out || !err) {
    if (out) std::fclose(out);
    if (err) std::fclose(err);
    run.err = "no temporary file for its output";
    return run;
  }
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fileno(out), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fileno(err), STDERR_FILENO);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int wait_status = 0;
  if (spawned == 0 && ::waitpid(pid, &wait_status, 0) == pid && WIFEXITED(wait_status))
    run.status = WEXITSTATUS(wait_status);
  run.out = ReadAll(out);
  run.err = ReadAll(err);
  if (spawned != 0) run.err = std::string("cannot start it: ") + std::strerror(spawned);
  return run;
}

// One record of `scontrol -o show job`: a task, or the tasks of the array still pending together
// ("1-4", "2,4-6%2").
struct TaskRecord {
  std::string tasks, state, exit_code;
  int restarts = 0;
};

// The states a task ends in; from any other it goes on (a requeued task is PENDING again).
bool Finished(const std::string& state) {
  static const std::set<std::string> kFinal{"COMPLETED", "FAILED",    "CANCELLED", "TIMEOUT",   "NODE_FAIL",
                                            "OUT_OF_MEMORY", "BOOT_FAIL", "DEADLINE", "PREEMPTED", "REVOKED"};
  return kFinal.count(state) > 0;
}

std::vector<TaskRecord> ParseJobRecords(const std::string& text) {
  std::vector<TaskRecord> records;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::map<std::string, std::string> fields;
    std::istringstream words(line);
    for (std::string word; words >> word;)
      if (const size_t eq = word.find('='); eq != std::string::npos) fields[word.substr(0, eq)] = word.substr(eq + 1);
    if (!fields.count("JobState")) continue;
    TaskRecord record{fields["ArrayTaskId"], fields["JobState"], fields["ExitCode"], 0};
    record.restarts = std::atoi(fields["Restarts"].c_str());
    records.push_back(record);
  }
  return records;
}

// "FAILED, exit status 75 after 3 requeues".
std::string Ending(const TaskRecord& task) {
  std::string text = task.state;
  const size_t colon = task.exit_code.find(':');  // "status:signal"
  const std::string status = task.exit_code.substr(0, colon);
  const std::string signal = colon == std::string::npos ? "0" : task.exit_code.substr(colon + 1);
  if (task.state != "COMPLETED" && status != "0" && !status.empty()) text += ", exit status " + status;
  if (task.state != "COMPLETED" && signal != "0") text += ", signal " + signal;
  if (task.restarts > 0)
    text += " after " + std::to_string(task.restarts) + (task.restarts == 1 ? " requeue" : " requeues");
  return text;
}

// Follows the job's tasks until every one has ended: 0 when all completed, 1 otherwise, naming
// the failed tasks and their logs.
int WaitForJob(const std::string& job, const fs::path& logs) {
  std::fprintf(stderr, "kestrion: waiting for job %s (Ctrl-C stops waiting; the job goes on)\n", job.c_str());
  std::map<std::string, TaskRecord> seen;  // by task
  for (int unanswered = 0;;) {
    const ProgramRun poll = RunProgram({"scontrol", "-o", "show", "job", job});
    if (poll.status != 0) {
      // A job whose records were all dropped (MinJobAge) is no longer known.
      if (!seen.empty() && poll.err.find("Invalid job id") != std::string::npos) break;
      if (++unanswered == kUnansweredPolls) {
        std::fprintf(stderr, "kestrion: scontrol show job %s: %s", job.c_str(), poll.err.c_str());
        return status::FrameFailed;
      }
      std::this_thread::sleep_for(kPollInterval);
      continue;
    }
    unanswered = 0;
    bool running = false;
    for (const TaskRecord& record : ParseJobRecords(poll.out)) {
      running = running || !Finished(record.state);
      const auto before = seen.find(record.tasks);
      if (before == seen.end() || before->second.state != record.state || before->second.restarts != record.restarts)
        std::fprintf(stderr, "kestrion: task %s: %s\n", record.tasks.c_str(),
                     Finished(record.state) ? Ending(record).c_str()
                                            : (record.state + ", run " + std::to_string(record.restarts + 1)).c_str());
      seen[record.tasks] = record;
    }
    if (!running) break;
    std::this_thread::sleep_for(kPollInterval);
  }
  std::vector<const TaskRecord*> failed;
  for (const auto& [tasks, record] : seen)
    if (Finished(record.state) && record.state != "COMPLETED") failed.push_back(&record);
  if (failed.empty()) {
    std::fprintf(stderr, "kestrion: job %s: every task completed\n", job.c_str());
    return status::Done;
  }
  std::fprintf(stderr, "kestrion: job %s: %zu %s failed:\n", job.c_str(), failed.size(),
               failed.size() == 1 ? "task" : "tasks");
  for (const TaskRecord* task : failed)
    std::fprintf(stderr, "  task %s: %s; log %s\n", task->tasks.c_str(), Ending(*task).c_str(),
                 (logs / (job + "_" + task->tasks + ".log")).c_str());
  return status::FrameFailed;
}

}  // namespace

int SubmitFlow(const SubmitOptions& options) {
  std::optional<FlowRun> run = LoadFlowRun(options.flow, options.frames);
  if (!run) return status::BadInput;
  std::error_code ec;
  const fs::path flow = fs::absolute(options.flow).lexically_normal();
  const fs::path kestrion = fs::read_symlink("/proc/self/exe", ec);
  if (ec) {
    std::fprintf(stderr, "kestrion: cannot tell where this kestrion lies: %s\n", ec.message().c_str());
    return status::FrameFailed;
  }
  const fs::path script = flow.string() + ".kestrion-sbatch", logs = flow.string() + ".kestrion-logs";
  const std::string text = BatchScript(kestrion, flow, logs, run->frames, options.tasks, options.sbatch_options);
  if (options.dry_run) {
    std::fputs(text.c_str(), stdout);
    return status::Done;
  }
  if (FindProgram("sbatch").empty()) {
    std::fprintf(stderr,
                 "kestrion: sbatch is not on PATH: submit from a machine of a Slurm cluster (--dry-run prints the "
                 "script to submit elsewhere)\n");
    return status::BadInput;
  }
  try {
    fs::create_directories(logs);
    CArchive bytes;
    bytes.WriteBytes(text.data(), text.size());
    bytes.WriteFile(script);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kestrion: cannot write '%s' and its log folder: %s\n", script.c_str(), e.what());
    return status::FrameFailed;
  }

  std::vector<std::string> sbatch{"sbatch", "--parsable"};
  sbatch.insert(sbatch.end(), options.sbatch_options.begin(), options.sbatch_options.end());
  sbatch.push_back(script);
  const ProgramRun submitted = RunProgram(sbatch);
  const std::string job = submitted.out.substr(0, submitted.out.find_first_of(";\n"));
  if (submitted.status != 0 || job.empty()) {
    std::fprintf(stderr, "kestrion: sbatch refused '%s': %s", script.c_str(), submitted.err.c_str());
    return status::FrameFailed;
  }
  std::fputs(submitted.err.c_str(), stderr);  // sbatch's warnings
  std::printf("%s\n", job.c_str());
  std::fflush(stdout);
  std::fprintf(stderr, "kestrion: job %s: %d tasks over frames %s; logs %s\n", job.c_str(), options.tasks,
               FramesText(run->frames).c_str(), (logs / (job + "_TASK.log")).c_str());
  return options.wait ? WaitForJob(job, logs) : status::Done;
}

}  // namespace kestrion::cli
