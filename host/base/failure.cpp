#include "host/base/failure.h"

#include <cerrno>
#include <mutex>

namespace kestrion {

namespace {
std::mutex g_lock;
std::vector<Failure> g_failures;
constexpr size_t kMaxFailures = 64;
}  // namespace

void NoteFailure(std::string message, bool temporary) {
  std::lock_guard<std::mutex> hold(g_lock);
  for (const Failure& f : g_failures)
    if (f.message == message && f.temporary == temporary) return;
  if (g_failures.size() < kMaxFailures) g_failures.push_back({std::move(message), temporary});
}

std::vector<Failure> TakeFailures() {
  std::lock_guard<std::mutex> hold(g_lock);
  std::vector<Failure> out;
  out.swap(g_failures);
  return out;
}

bool IsTemporaryErrno(int err) {
  switch (err) {
    case ENOSPC:
    case EDQUOT:
    case EAGAIN:
    case EINTR:
    case EBUSY:
    case ETIMEDOUT:
    case ENFILE:
    case EMFILE:
    case ENOMEM:
      return true;
    default:
      return false;
  }
}

}  // namespace kestrion
