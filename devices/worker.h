// SPDX-License-Identifier: Apache-2.0
// A thread for calls that may block without end: PC/SC waits for another program's transaction as long as it lasts, and
// for an answer of its service. The caller waits until a deadline and then goes its way; the thread stays with the
// call.
//
// The thread owns what the calls work on, so a late one still finds it. When the worker is given up, the thread
// destroys that, as soon as its last call returns, and ends.
#ifndef KELMTROVA_DEVICES_WORKER_H
#define KELMTROVA_DEVICES_WORKER_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace kelm::devices {

using Clock = std::chrono::steady_clock;

// How long one job may take, and whether anybody still waits for it.
class Wait {
 public:
  // The job has come to its next stage: the caller waits for `limit` from now. False when the caller has gone; then the
  // job must undo what it did and return.
  bool extend(Clock::duration limit) {
    const std::lock_guard guard(lock_);
    deadline_ = Clock::now() + limit;
    return !givenUp_;
  }
  bool givenUp() {
    const std::lock_guard guard(lock_);
    return givenUp_;
  }

 private:
  template <typename Owned>
  friend class Worker;

  void finish() {
    const std::lock_guard guard(lock_);
    done_ = true;
    changed_.notify_all();
  }
  bool finishedInTime(Clock::time_point deadline) {
    std::unique_lock guard(lock_);
    deadline_ = deadline;
    while (!done_ && !givenUp_) {
      if (changed_.wait_until(guard, deadline_) == std::cv_status::timeout && Clock::now() >= deadline_)
        givenUp_ = !done_;
    }
    return done_;
  }

  std::mutex lock_;
  std::condition_variable changed_;
  Clock::time_point deadline_ = Clock::time_point::max();
  bool done_ = false;
  bool givenUp_ = false;
};

template <typename Owned>
class Worker {
 public:
  // A job must hold what it uses: it may outlive its caller. It must not throw.
  using Job = std::function<void(Owned &, Wait &)>;

  Worker() {
    // Signals of the program are for the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
      std::thread(serve, state_).detach();
    } catch (...) {
      pthread_sigmask(SIG_SETMASK, &before, nullptr);
      throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;
  // Waits for the thread unless its job is overdue.
  ~Worker() {
    std::unique_lock guard(state_->lock);
    state_->stop = true;
    state_->changed.notify_all();
    if (!overdue(*state_)) state_->changed.wait_for(guard, kFarewell, [&] { return state_->ended; });
    if (!state_->ended) {
      state_->abandoned = true;
      ++abandonedThreads();
    }
  }

  // Threads of this kind that nobody waits for any more, and that still hang in a call.
  static std::atomic<int> &abandonedThreads() {
    static std::atomic<int> count = 0;
    return count;
  }

  // True when the job was done within `limit`, its extensions counted. An overdue job that came before is waited for
  // first.
  bool run(Clock::duration limit, Job job) {
    const auto wait = std::make_shared<Wait>();
    const Clock::time_point deadline = Clock::now() + limit;
    {
      std::unique_lock guard(state_->lock);
      if (!state_->changed.wait_until(guard, deadline, [&] { return !state_->job; })) return false;
      state_->job = std::move(job);
      state_->wait = wait;
      state_->changed.notify_all();
    }
    return wait->finishedInTime(deadline);
  }

 private:
  static constexpr std::chrono::seconds kFarewell{5};

  struct State {
    std::mutex lock;
    std::condition_variable changed;
    Job job;
    std::shared_ptr<Wait> wait;
    bool stop = false;
    bool ended = false;
    bool abandoned = false;
    std::unique_ptr<Owned> owned = std::make_unique<Owned>();
  };

  static bool overdue(State &state) { return state.job && state.wait->givenUp(); }

  static void serve(std::shared_ptr<State> state) {
    std::unique_lock guard(state->lock);
    for (;;) {
      state->changed.wait(guard, [&] { return state->job || state->stop; });
      if (!state->job) break;
      guard.unlock();
      state->job(*state->owned, *state->wait);
      guard.lock();
      state->wait->finish();
      state->job = nullptr;
      state->wait = nullptr;
      state->changed.notify_all();
    }
    guard.unlock();
    state->owned.reset();
    guard.lock();
    state->ended = true;
    if (state->abandoned) --abandonedThreads();
    state->changed.notify_all();
  }

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kelm::devices

#endif
