#include "delivery/run_loop.h"

#include <algorithm>

namespace gab {

RunLoop& RunLoop::Current() {
  thread_local RunLoop loop;
  return loop;
}

RunLoop::TimerId RunLoop::ScheduleTimer(double seconds, std::function<void()> fn,
                                        const void* owner) {
  auto delay = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(std::max(0.0, seconds)));
  std::lock_guard lock(mutex_);
  TimerId id = nextId_++;
  timers_.emplace(id, Timer{Clock::now() + delay, std::move(fn), owner});
  wake_.notify_all();
  return id;
}

void RunLoop::CancelTimer(TimerId id) {
  std::lock_guard lock(mutex_);
  timers_.erase(id);
}

void RunLoop::Post(std::function<void()> fn, const void* owner) {
  std::lock_guard lock(mutex_);
  posted_.push_back(Posted{std::move(fn), owner});
  wake_.notify_all();
}

void RunLoop::CancelAll(const void* owner) {
  std::lock_guard lock(mutex_);
  std::erase_if(posted_, [owner](const Posted& p) { return p.owner == owner; });
  std::erase_if(timers_, [owner](const auto& t) { return t.second.owner == owner; });
}

bool RunLoop::HasSources() {
  std::lock_guard lock(mutex_);
  return !posted_.empty() || !timers_.empty();
}

bool RunLoop::RunOnce(std::optional<Clock::time_point> limit) {
  std::function<void()> fn;
  {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (!posted_.empty()) {
        fn = std::move(posted_.front().fn);
        posted_.pop_front();
        break;
      }
      // Nothing queued and no timer: only another thread could still post,
      // and nothing here expects that, so waiting would never end.
      if (timers_.empty()) return false;
      auto next = std::min_element(
          timers_.begin(), timers_.end(),
          [](const auto& a, const auto& b) { return a.second.due < b.second.due; });
      auto now = Clock::now();
      if (next->second.due <= now) {
        fn = std::move(next->second.fn);
        timers_.erase(next);
        break;
      }
      if (limit && *limit <= now) return true;
      auto until = next->second.due;
      if (limit && *limit < until) until = *limit;
      wake_.wait_until(lock, until);
    }
  }
  fn();
  return true;
}

}  // namespace gab
