#pragma once
// Keeps two runs of the parser (or a parser run and `gabfolio import`) from
// working on the record and the stores at the same time.  The lock is an
// flock on a sidecar file, not on the record itself, because the record is
// replaced by rename on every save and a lock on it would be lost.

#include <string>

namespace gab::parser {

class RunLock {
 public:
  RunLock() = default;
  ~RunLock();
  RunLock(const RunLock&) = delete;
  RunLock& operator=(const RunLock&) = delete;

  // Tries for up to `waitSeconds` (0: once).  False when another process
  // holds it all that time, or the sidecar cannot be opened (then `error`
  // says why, and waiting would not help).
  bool Acquire(const std::string& lockPath, double waitSeconds, std::string* error = nullptr);
  void Release();
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace gab::parser
