// Running the kestrion command as a render farm runs it: a separate process, its stdout, its
// stderr and its exit status, in a fresh temporary folder of the test's own.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/host/test_tools.h"

namespace kestrion::cli_test {

using test_tools::ReadBytes;
using test_tools::TempFolder;
using test_tools::WriteBytes;

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline bool Contains(const std::string& text, const std::string& piece) { return text.find(piece) != std::string::npos; }

// The exit status; a process that a signal killed (rather than exiting 128 + n) reads 1000 + n.
inline int StatusOf(int wait_status) {
  if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
  return WIFSIGNALED(wait_status) ? 1000 + WTERMSIG(wait_status) : -1;
}

struct Outcome {
  int status = -1;
  std::string out, err;
};

class CommandTest : public ::testing::Test {
 protected:
  // Starts the command with stdout and stderr going to files named after the run.
  pid_t Start(const std::vector<std::string>& args, const std::string& run) {
    std::vector<std::string> all{KESTRION_TEST_CLI};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string out = dir_ / (run + ".out"), err = dir_ / (run + ".err");
    const pid_t pid = ::fork();
    if (pid == 0) {
      const int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (o < 0 || e < 0 || ::dup2(o, STDOUT_FILENO) < 0 || ::dup2(e, STDERR_FILENO) < 0) ::_exit(126);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    return pid;
  }

  // Runs commands side by side (starting the command costs more than most runs here), and
  // removes their output files.
  std::vector<Outcome> RunAll(const std::vector<std::vector<std::string>>& commands) {
    std::vector<pid_t> pids;
    for (size_t i = 0; i < commands.size(); ++i) pids.push_back(Start(commands[i], "run" + std::to_string(i)));
    std::vector<Outcome> outcomes(commands.size());
    for (size_t i = 0; i < commands.size(); ++i) {
      const std::string run = dir_ / ("run" + std::to_string(i));
      int wait_status = 0;
      if (pids[i] > 0 && ::waitpid(pids[i], &wait_status, 0) == pids[i])
        outcomes[i] = {StatusOf(wait_status), ReadBytes(run + ".out"), ReadBytes(run + ".err")};
      std::filesystem::remove(run + ".out");
      std::filesystem::remove(run + ".err");
    }
    return outcomes;
  }

  // Copies the example flow and its media into the folder.
  void CopyExample() {
    const std::filesystem::path examples = std::filesystem::path(KESTRION_TEST_SOURCE_DIR) / "examples";
    std::filesystem::copy_file(examples / "grade.json", dir_.path() / "grade.json");
    std::filesystem::copy(examples / "media", dir_.path() / "media");
  }

  TempFolder dir_;
};

}  // namespace kestrion::cli_test
