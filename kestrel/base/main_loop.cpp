#include "kestrel/base/main_loop.h"

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
};

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
}

void MainLoop::PostDelayed(double delay_seconds, Job job) {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    const std::uint64_t sequence = state_->next_sequence++;
    state_->delayed.emplace(std::make_pair(NowNs() + SecondsToNs(delay_seconds), sequence),
                            std::move(job));
  }
  state_->wake.notify_all();
}

MainLoop::TimerId MainLoop::PostTimer(double delay_seconds, Job job) {
  TimerId id;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    id = state_->next_sequence++;
    const long long due = NowNs() + SecondsToNs(delay_seconds);
    state_->delayed.emplace(std::make_pair(due, id), std::move(job));
    state_->timers.emplace(id, due);
  }
  state_->wake.notify_all();
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
