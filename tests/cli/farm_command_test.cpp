// `kestrion render --chunk` and `kestrion submit` without a cluster: chunks rendered by the
// command, the batch script, and --wait following stand-ins for sbatch and scontrol (the farm
// test runs the real ones).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/cli/command_fixture.h"

namespace kestrion::cli_test {
namespace {

namespace fs = std::filesystem;

// Sets an environment variable (or unsets it, with null) while it lives; the commands started
// meanwhile inherit it.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedVariable() { old_.empty() ? ::unsetenv(name_) : ::setenv(name_, old_.c_str(), 1); }

 private:
  const char* name_;
  std::string old_;
};

class FarmCommandTest : public CommandTest {
 protected:
  void SetUp() override { CopyExample(); }
  // Writes a program for PATH into bin/.
  void WriteProgram(const std::string& name, const std::string& body) {
    fs::create_directories(dir_.path() / "bin");
    const fs::path path = dir_.path() / "bin" / name;
    WriteBytes(path, "#!/bin/sh\n" + body);
    fs::permissions(path, fs::perms::owner_all);
  }
  std::string Flow() const { return dir_ / "grade.json"; }
};

// Each case renders into a copy of the flow of its own; the frames are those of 1-8x2 (1, 3,
// 5, 7) or of the flow's range (1-8). Outside a Slurm array "auto" has no chunk; inside one
// (task 3 of 1-4) it is chunk 3/4.
TEST_F(FarmCommandTest, ChunksRenderTheirPartOfTheFrames) {
  const struct {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> written;
  } cases[] = {
      {{"-F", "1-8x2", "--chunk", "2/3"}, 0, {"grade.0005.png"}},
      {{"-F", "1-2", "--chunk", "3/3"}, 0, {}},
      {{"--chunk", "auto"}, 2, {}},
      {{"--chunk", "4/3"}, 2, {}},
  };
  std::vector<std::vector<std::string>> commands;
  for (size_t i = 0; i < std::size(cases); ++i) {
    const fs::path folder = dir_.path() / std::to_string(i);
    fs::create_directories(folder);
    fs::copy(dir_.path() / "media", folder / "media");
    fs::copy_file(Flow(), folder / "grade.json");
    commands.push_back({"render", (folder / "grade.json").string()});
    commands.back().insert(commands.back().end(), cases[i].args.begin(), cases[i].args.end());
  }
  ScopedVariable no_task("SLURM_ARRAY_TASK_ID", nullptr);
  const auto runs = RunAll(commands);
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(testing::PrintToString(cases[i].args));
    EXPECT_EQ(runs[i].status, cases[i].status) << runs[i].err;
    EXPECT_EQ(dir_.Files(std::to_string(i) + "/out"), cases[i].written);
  }
  ScopedVariable id("SLURM_ARRAY_TASK_ID", "3"), min("SLURM_ARRAY_TASK_MIN", "1"), max("SLURM_ARRAY_TASK_MAX", "4");
  const Outcome run = RunAll({{"render", Flow(), "--chunk", "auto"}})[0];
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(dir_.Files("out"), (std::vector<std::string>{"grade.0005.png", "grade.0006.png"}));
}

TEST_F(FarmCommandTest, DryRunPrintsTheScriptAndWritesNothing) {
  const Outcome run =
      RunAll({{"submit", Flow(), "-F", "1-8x2", "--tasks", "3", "--dry-run", "--", "-p", "render farm"}})[0];
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string logs = Flow() + ".kestrion-logs";
  for (const std::string& piece : std::vector<std::string>{
           "#SBATCH --array=1-3\n", "#SBATCH --requeue\n", "#SBATCH --output=\"" + logs + "/%A_%a.log\"\n",
        "flow=" + Flow() + "\n", "render \"$flow\" -F 1-8x2 --chunk auto --resume",
        "scontrol requeue \"${SLURM_ARRAY_JOB_ID}_${SLURM_ARRAY_TASK_ID}\"",
        "sbatch -p 'render farm' " + Flow() + ".kestrion-sbatch\n"})
    EXPECT_TRUE(Contains(run.out, piece)) << piece << "\n" << run.out;
  EXPECT_EQ(dir_.Files(), (std::vector<std::string>{"grade.json", "media"}));
}

TEST_F(FarmCommandTest, WithoutSbatchSubmitGivesStatus2) {
  ScopedVariable path("PATH", (dir_ / "bin").c_str());
  const Outcome run = RunAll({{"submit", Flow(), "--tasks", "2"}})[0];
  EXPECT_EQ(run.status, 2);
  EXPECT_TRUE(Contains(run.err, "sbatch is not on PATH")) << run.err;
  EXPECT_EQ(dir_.Files(), (std::vector<std::string>{"grade.json", "media"}));
}

// sbatch notes its arguments and answers job 4242; scontrol shows the array pending at first,
// then the records of the case.
TEST_F(FarmCommandTest, WaitReportsHowTheTasksEnded) {
  const struct {
    const char* records;
    int status;
    std::vector<std::string> said;
  } cases[] = {
      {"JobId=4243 ArrayJobId=4242 ArrayTaskId=1 JobState=COMPLETED Restarts=0 ExitCode=0:0\n"
       "JobId=4244 ArrayJobId=4242 ArrayTaskId=2 JobState=COMPLETED Restarts=1 ExitCode=0:0\n",
       0,
       {"task 2: COMPLETED after 1 requeue", "job 4242: every task completed"}},
      {"JobId=4243 ArrayJobId=4242 ArrayTaskId=1 JobState=COMPLETED Restarts=0 ExitCode=0:0\n"
       "JobId=4244 ArrayJobId=4242 ArrayTaskId=2 JobState=FAILED Restarts=3 ExitCode=75:0\n"
       "JobId=4242 ArrayJobId=4242 ArrayTaskId=3-4 JobState=CANCELLED Restarts=0 ExitCode=0:0\n",
       1,
       {"job 4242: 2 tasks failed:\n",
        "  task 2: FAILED, exit status 75 after 3 requeues; log " + Flow() + ".kestrion-logs/4242_2.log\n",
        "  task 3-4: CANCELLED; log"}},
  };
  ScopedVariable path("PATH", (dir_ / "bin:" + std::getenv("PATH")).c_str());
  WriteProgram("sbatch", "printf '%s\\n' \"$@\" > \"$(dirname \"$0\")/sbatch.args\"\necho '4242;local'\n");
  WriteProgram("scontrol", R"sh(cd "$(dirname "$0")"
[ "$*" = "-o show job 4242" ] || exit 1
[ -e polled ] || { touch polled; echo "JobId=4242 ArrayJobId=4242 ArrayTaskId=1-4 JobState=PENDING Restarts=0"; exit; }
cat records
)sh");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.records);
    fs::remove(dir_.path() / "bin" / "polled");
    WriteBytes(dir_.path() / "bin" / "records", c.records);
    const Outcome run = RunAll({{"submit", Flow(), "--tasks", "4", "--wait", "--", "--mem=1G"}})[0];
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_EQ(run.out, "4242\n");
    for (const std::string& piece : c.said) EXPECT_TRUE(Contains(run.err, piece)) << piece << "\n" << run.err;
    EXPECT_FALSE(Contains(run.err, "  task 1:")) << run.err;
  }
  EXPECT_EQ(ReadBytes(dir_ / "bin/sbatch.args"), "--parsable\n--mem=1G\n" + Flow() + ".kestrion-sbatch\n");
  EXPECT_TRUE(Contains(ReadBytes(Flow() + ".kestrion-sbatch"), "#SBATCH --array=1-4\n"));
  EXPECT_TRUE(fs::is_directory(Flow() + ".kestrion-logs"));
}

}  // namespace
}  // namespace kestrion::cli_test
