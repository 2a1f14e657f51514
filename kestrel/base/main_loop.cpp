#include "kestrel/base/main_loop.h"

#include <chrono>
#include <deque>
#include <map>

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
  std::multimap<long long, Job> delayed;  // due time (steady ns) -> job, in posting order per time
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
    state_->delayed.emplace(NowNs() + SecondsToNs(delay_seconds), std::move(job));
  }
  state_->wake.notify_all();
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
    while (!state_->delayed.empty() && state_->delayed.begin()->first <= now) {
      state_->ready.push_back(std::move(state_->delayed.begin()->second));
      state_->delayed.erase(state_->delayed.begin());
    }
    if (!state_->ready.empty()) {
      *job = std::move(state_->ready.front());
      state_->ready.pop_front();
      return true;
    }
    if (!wait || now >= deadline_ns) return false;
    long long until = deadline_ns;
    if (!state_->delayed.empty() && state_->delayed.begin()->first < until) {
      until = state_->delayed.begin()->first;
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
