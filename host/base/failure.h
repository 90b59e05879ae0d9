// Failures that host I/O notes while a frame renders (a clip file that cannot be read or
// written), so the command can name the file and tell a temporary failure from a permanent one.
#pragma once

#include <string>
#include <vector>

namespace kestrion {

struct Failure {
  std::string message;
  bool temporary = false;  // the same command may succeed later (a full disk, a busy file)
};

// Notes a failure; one already noted since the last TakeFailures (a read that was retried) is
// noted once.
void NoteFailure(std::string message, bool temporary);
// The failures noted since the last call, oldest first.
std::vector<Failure> TakeFailures();

// Whether an errno value names a condition that may pass (full disk, busy or interrupted I/O).
bool IsTemporaryErrno(int err);

}  // namespace kestrion
