// SPDX-License-Identifier: Apache-2.0
#include "tools/image/quality.h"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <system_error>
#include <thread>

#include "tools/exit_codes.h"
#include "tools/image/analysis.h"
#include "tools/image/lines.h"
#include "tools/image/paths.h"
#include "tools/output.h"
#include "tools/terminal.h"
#include "tools/text.h"

namespace kelm::tools {
namespace {

const std::vector<std::string> &columns() {
  static const std::vector<std::string> all = {"path",   "width",      "height",  "resolution",    "scale",
                                               "finger", "clarity",    "quality", "qualitySpread", "foreground",
                                               "period", "continuous", "error"};
  return all;
}

struct Line {
  std::string text;  // "" for a picture that was done before
  bool failed = false;
};

Line measure(const std::string &path, const LineForm &form) {
  nlohmann::ordered_json record;
  for (const std::string &column : columns()) record[column] = nullptr;
  record["path"] = path;
  try {
    AnalysisSettings settings;
    settings.maps = false;
    record.update(mainNumbers(analyse(readPicture(path), path, settings)));
  } catch (const std::bad_alloc &) {
    record["error"] = "memory is exhausted";
  } catch (const std::exception &error) {
    const std::string message = error.what();
    // The line has its path already.
    record["error"] = message.starts_with(path + ": ") ? message.substr(path.size() + 2) : message;
  }
  return {form.line(record), !record["error"].is_null()};
}

// Where address space is limited, more threads than it holds would fail in the midst of their pictures: each has a
// stack, a heap of malloc's and a picture's maps.
int affordable(int jobs) {
  constexpr rlim_t kThread = rlim_t{128} << 20;
  rlimit space{};
  if (getrlimit(RLIMIT_AS, &space) != 0 || space.rlim_cur == RLIM_INFINITY) return jobs;
  return static_cast<int>(std::clamp<rlim_t>(space.rlim_cur / kThread, 1, static_cast<rlim_t>(jobs)));
}

// Pictures are taken in order by several threads; the lines are kept until it is their turn.
class Batch {
 public:
  explicit Batch(const QualitySettings &wanted)
      : settings_(wanted),
        form_(columns(), wanted.csv),
        sink_(form_, wanted.out, wanted.resume),
        source_(wanted.paths, wanted.nullBytes) {}

  int run() {
    const std::optional<size_t> total = source_.total();
    // A thread of its own for one job too: lines must not wait for a list that is still being written.
    const int jobs = affordable(settings_.jobs);
    for (int i = 0; i < jobs && (!total || static_cast<size_t>(i) < *total); ++i) {
      try {
        workers_.emplace_back([this] { work(); });
      } catch (const std::system_error &) {
        break;  // the threads that could be made go on
      }
    }
    try {
      if (workers_.empty()) {
        alone_ = true;
        work();
      }
      write(total.value_or(0));
      sink_.finish();
    } catch (...) {
      join();
      throw;
    }
    join();
    putError("kelmtrova: " + counted(written_ - failures_, "picture") + " measured, " + counted(failures_, "failure") +
             ", " + counted(done_ + source_.passedOver(), "file") + " skipped");
    return written_ - failures_ + done_ > 0 ? kExitDone : kExitUsage;
  }

 private:
  // Lines that wait for an earlier one; more would only take memory.
  size_t mostAhead() const { return 16 + 4 * static_cast<size_t>(settings_.jobs); }

  void work() {
    try {
      for (;;) {
        std::unique_lock sourceLock(sourceMutex_);
        const std::optional<std::string> path = source_.next(stop_);
        const size_t mine = taken_;
        if (path) ++taken_;
        sourceLock.unlock();
        if (!path) break;
        Line line;
        if (!sink_.done(*path)) line = measure(*path, form_);
        std::unique_lock lock(mutex_);
        // The one whose turn it is never waits. Without threads of their own nobody would make room.
        room_.wait(lock, [&] { return stop_ || alone_ || mine < next_ + mostAhead(); });
        lines_[mine] = std::move(line);
        ready_.notify_one();
      }
    } catch (...) {
      const std::lock_guard lock(mutex_);
      failure_ = std::current_exception();
    }
    const std::lock_guard lock(mutex_);
    ++ended_;
    ready_.notify_one();
  }

  void write(size_t total) {
    const bool linesOnTerminal = settings_.out.empty() && isatty(STDOUT_FILENO) == 1;
    std::optional<Progress> progress;
    if (total > 0 && !linesOnTerminal) progress.emplace("measuring", "pictures", total);
    for (;;) {
      std::unique_lock lock(mutex_);
      ready_.wait(lock, [&] { return lines_.count(next_) != 0 || ended_ >= std::max<size_t>(workers_.size(), 1); });
      const auto found = lines_.find(next_);
      if (found == lines_.end()) {
        if (failure_) std::rethrow_exception(failure_);
        return;
      }
      const Line line = std::move(found->second);
      lines_.erase(found);
      ++next_;
      room_.notify_all();
      lock.unlock();
      if (line.text.empty()) {
        ++done_;
      } else {
        sink_.put(line.text);
        ++written_;
        failures_ += line.failed;
      }
      if (progress) progress->show(next_);
    }
  }

  void join() {
    {
      const std::lock_guard lock(mutex_);
      stop_ = true;
    }
    room_.notify_all();
    for (std::thread &worker : workers_) worker.join();
  }

  const QualitySettings &settings_;
  const LineForm form_;
  LineSink sink_;
  PathSource source_;
  std::vector<std::thread> workers_;
  std::atomic<bool> stop_ = false, alone_ = false;
  std::mutex sourceMutex_;
  size_t taken_ = 0;
  std::mutex mutex_;
  std::condition_variable ready_, room_;
  std::map<size_t, Line> lines_;
  size_t next_ = 0, ended_ = 0;
  std::exception_ptr failure_;
  size_t written_ = 0, failures_ = 0, done_ = 0;
};

}  // namespace

int measureQuality(const QualitySettings &settings) {
  // A picture takes what the one before it gave back. By default that would go back to the system each time, and be
  // cleared page by page when it returns.
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
  mallopt(M_TRIM_THRESHOLD, 16 << 20);
  return Batch(settings).run();
}

}  // namespace kelm::tools
