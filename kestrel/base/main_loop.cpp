#include "kestrel/base/main_loop.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <unordered_map>
#include <utility>

namespace kestrel {
namespace {

long long NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

long long SecondsToNs(double seconds) {
  if (seconds <= 0) return 0;
  if (seconds > 1e9) return static_cast<long long>(1e18);
  return static_cast<long long>(seconds * 1e9);
}

}  // namespace

struct MainLoop::State {
  mutable std::mutex mutex;
  std::condition_variable wake;
  std::deque<Job> ready;
  // (due time in steady ns, sequence number) -> job: in due order, and in posting order per time.
  std::map<std::pair<long long, std::uint64_t>, Job> delayed;
  // Sequence number -> due time, for the jobs queued with PostTimer() that CancelTimer() may take
  // back.
  std::unordered_map<std::uint64_t, long long> timers;
  std::uint64_t next_sequence = 1;
  int quit_requests = 0;
  // The wake-up hook. Its own mutex is held while it runs, so that replacing it waits for a call
  // in progress; it is never held together with `mutex`.
  std::mutex hook_mutex;
  WakeUpHook hook;
  // Whether a hook is installed, read without the hook's mutex so that a loop without one pays
  // nothing on Post().
  std::atomic<bool> has_hook{false};
};

void MainLoop::CallWakeUpHook() {
  if (!state_->has_hook.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> lock(state_->hook_mutex);
  if (state_->hook) state_->hook();
}

void MainLoop::SetWakeUpHook(WakeUpHook hook) {
  std::lock_guard<std::mutex> lock(state_->hook_mutex);
  state_->hook = std::move(hook);
  state_->has_hook.store(static_cast<bool>(state_->hook), std::memory_order_release);
}

double MainLoop::SecondsUntilNextJob() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (!state_->ready.empty()) return 0;
  if (state_->delayed.empty()) return -1;
  const long long wait_ns = state_->delayed.begin()->first.first - NowNs();
  return wait_ns <= 0 ? 0 : static_cast<double>(wait_ns) / 1e9;
}

MainLoop::MainLoop() : state_(new State) {}

MainLoop::~MainLoop() { delete state_; }

MainLoop* MainLoop::Default() {
  static MainLoop* const loop = new MainLoop();
  return loop;
}

void MainLoop::Post(Job job) {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->ready.push_back(std::move(job));
  }
  state_->wake.notify_all();
  CallWakeUpHook();
}

void MainLoop::PostDelayed(double delay_seconds, Job job) {
  bool earliest = false;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const std::uint64_t sequence = state_->next_sequence++;
    auto it =
        state_->delayed
            .emplace(std::make_pair(NowNs() + SecondsToNs(delay_seconds), sequence), std::move(job))
            .first;
    // A job goes after those with the same due time, so it is first only when it is the
    // earliest of all.
    earliest = it == state_->delayed.begin();
  }
  state_->wake.notify_all();
  if (earliest) CallWakeUpHook();
}

MainLoop::TimerId MainLoop::PostTimer(double delay_seconds, Job job) {
  TimerId id;
  bool earliest = false;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    id = state_->next_sequence++;
    const long long due = NowNs() + SecondsToNs(delay_seconds);
    const auto it = state_->delayed.emplace(std::make_pair(due, id), std::move(job)).first;
    earliest = it == state_->delayed.begin();
    state_->timers.emplace(id, due);
  }
  state_->wake.notify_all();
  if (earliest) CallWakeUpHook();
  return id;
}

bool MainLoop::CancelTimer(TimerId id) {
  Job job;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto timer = state_->timers.find(id);
    if (timer == state_->timers.end()) return false;
    auto queued = state_->delayed.find(std::make_pair(timer->second, id));
    state_->timers.erase(timer);
    if (queued == state_->delayed.end()) return false;
    job = std::move(queued->second);
    state_->delayed.erase(queued);
  }
  return true;  // `job` is destroyed here, outside the lock
}

void MainLoop::Quit() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    ++state_->quit_requests;
  }
  state_->wake.notify_all();
}

std::size_t MainLoop::pending() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->ready.size() + state_->delayed.size();
}

bool MainLoop::TakeNext(Job* job, long long deadline_ns, bool wait) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  for (;;) {
    if (state_->quit_requests > 0) {
      --state_->quit_requests;
      return false;
    }
    const long long now = NowNs();
    // Timers that fell due join the ready queue in due order.
    while (!state_->delayed.empty() && state_->delayed.begin()->first.first <= now) {
      state_->ready.push_back(std::move(state_->delayed.begin()->second));
      state_->timers.erase(state_->delayed.begin()->first.second);
      state_->delayed.erase(state_->delayed.begin());
    }
    if (!state_->ready.empty()) {
      *job = std::move(state_->ready.front());
      state_->ready.pop_front();
      return true;
    }
    if (!wait || now >= deadline_ns) return false;
    long long until = deadline_ns;
    if (!state_->delayed.empty() && state_->delayed.begin()->first.first < until) {
      until = state_->delayed.begin()->first.first;
    }
    state_->wake.wait_for(lock, std::chrono::nanoseconds(until - now));
  }
}

bool MainLoop::RunUntil(const std::function<bool()>& done, double timeout_seconds) {
  const long long deadline = NowNs() + SecondsToNs(timeout_seconds);
  Job job;
  while (!done()) {
    if (!TakeNext(&job, deadline, true)) return done();
    job();
    job = nullptr;
  }
  return true;
}

void MainLoop::RunUntilIdle() {
  Job job;
  while (TakeNext(&job, 0, false)) {
    job();
    job = nullptr;
  }
}

void MainLoop::Run() {
  Job job;
  while (TakeNext(&job, static_cast<long long>(1e18), true)) {
    job();
    job = nullptr;
  }
}

}  // namespace kestrel
