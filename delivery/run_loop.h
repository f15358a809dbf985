#pragma once
// A small run loop for one thread: one-shot timers and posted callbacks,
// delivered only while the owning thread runs the loop.  The mail client
// reports through it, so its callbacks arrive on the thread that waits for
// the transfer, never on a thread of their own.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

namespace gab {

class RunLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimerId = uint64_t;

  // The run loop of the calling thread (made on first use).
  static RunLoop& Current();

  RunLoop() = default;
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // A one-shot timer firing `seconds` from now.  `owner` groups sources so
  // that an object can withdraw everything it scheduled (CancelAll).
  TimerId ScheduleTimer(double seconds, std::function<void()> fn, const void* owner = nullptr);
  void CancelTimer(TimerId id);
  // Queues a callback for the next turn; safe from any thread.
  void Post(std::function<void()> fn, const void* owner = nullptr);
  // Drops every pending timer and callback of an owner.
  void CancelAll(const void* owner);

  // runMode:beforeDate:: delivers one source (a posted callback, else the
  // earliest due timer), waiting for one until `limit` (nullopt: the distant
  // future).  False when there was nothing that could ever arrive.
  bool RunOnce(std::optional<Clock::time_point> limit = std::nullopt);

  bool HasSources();

 private:
  struct Posted {
    std::function<void()> fn;
    const void* owner;
  };
  struct Timer {
    Clock::time_point due;
    std::function<void()> fn;
    const void* owner;
  };

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Posted> posted_;
  std::map<TimerId, Timer> timers_;
  TimerId nextId_ = 1;
};

}  // namespace gab
