// SPDX-License-Identifier: Apache-2.0
#include "tools/image/quality.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "tools/exit_codes.h"
#include "tools/image/analysis.h"

namespace kelm::tools {
namespace {

namespace fs = std::filesystem;

constexpr const char *kColumns[] = {"path",       "width",  "height",     "quality",
                                    "foreground", "period", "continuity", "error"};

void addPath(const std::string &path, std::vector<std::string> &out) {
  std::error_code error;
  if (!fs::is_directory(path, error)) {
    out.push_back(path);
    return;
  }
  std::vector<std::string> found;
  fs::recursive_directory_iterator entry(path, fs::directory_options::skip_permission_denied, error), end;
  for (; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().string();
    if (entry->is_regular_file(error) && (hasExtension(name, ".png") || hasExtension(name, ".pgm"))) {
      found.push_back(name);
    }
  }
  std::sort(found.begin(), found.end());
  out.insert(out.end(), found.begin(), found.end());
}

std::vector<std::string> allPaths(const std::vector<std::string> &named) {
  std::vector<std::string> out;
  for (const std::string &path : named) {
    if (path != "-") {
      addPath(path, out);
      continue;
    }
    for (std::string line; std::getline(std::cin, line);) {
      if (!line.empty()) addPath(line, out);
    }
  }
  return out;
}

struct Line {
  std::string text;
  bool failed = false;
};

std::string csvField(const nlohmann::json &value) {
  if (value.is_null()) return "";
  if (!value.is_string()) return value.dump();
  std::string quoted = "\"";
  for (const char character : value.get<std::string>()) quoted += character == '"' ? "\"\"" : std::string(1, character);
  return quoted + "\"";
}

std::string lineOf(const nlohmann::ordered_json &record, bool csv) {
  // Names of files are bytes and need not be UTF-8.
  if (!csv) return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::string line;
  for (const char *column : kColumns) line.append(line.empty() ? "" : ",").append(csvField(record.at(column)));
  return line;
}

Line measure(const std::string &path, bool csv) {
  nlohmann::ordered_json record;
  for (const char *column : kColumns) record[column] = nullptr;
  record["path"] = path;
  try {
    const Analysis analysis = analyse(readPicture(path), path);
    const Numbers &numbers = analysis.numbers;
    record["width"] = analysis.width;
    record["height"] = analysis.height;
    record["quality"] = std::round(numbers.quality * 100) / 100;
    record["foreground"] = std::round(numbers.foreground * 10000) / 10000;
    if (numbers.period > 0) record["period"] = numbers.period;
    record["continuity"] = numbers.continuous;
  } catch (const std::bad_alloc &) {
    record["error"] = "memory is exhausted";
  } catch (const std::exception &error) {
    const std::string message = error.what();
    // The line has its path already.
    record["error"] = message.rfind(path + ": ", 0) == 0 ? message.substr(path.size() + 2) : message;
  }
  return {lineOf(record, csv), !record["error"].is_null()};
}

// A bar with rate and time left, rewritten in place; nothing unless standard error is a terminal.
class Progress {
 public:
  explicit Progress(size_t expected) : total(expected), shown(isatty(STDERR_FILENO) == 1) {}

  void show(size_t done) {
    const auto now = std::chrono::steady_clock::now();
    if (!shown || (done < total && now - last < std::chrono::milliseconds(100))) return;
    last = now;
    const double seconds = std::chrono::duration<double>(now - start).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    const size_t filled = total > 0 ? done * kBar / total : kBar;
    std::string bar(filled, '#');
    bar.append(kBar - filled, '.');
    fprintf(stderr, "\r[%s] %zu of %zu, %.1f pictures/s, %.0f s left \x1b[K", bar.c_str(), done, total, rate,
            rate > 0 ? static_cast<double>(total - done) / rate : 0.0);
    if (done == total) fputc('\n', stderr);
  }

 private:
  static constexpr size_t kBar = 30;
  size_t total;
  bool shown;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point last{};
};

// Pictures are taken in order by several threads; the lines are kept until it is their turn.
class Batch {
 public:
  Batch(const std::vector<std::string> &all, const QualitySettings &wanted)
      : paths(all), settings(wanted), lines(all.size()) {}

  // Whether every picture could be read.
  bool run() {
    const size_t count = std::min(static_cast<size_t>(std::max(settings.jobs, 1)), paths.size());
    std::vector<std::thread> workers;
    for (size_t i = 0; i < count; ++i) workers.emplace_back([this] { work(); });
    const bool sound = write();
    for (std::thread &worker : workers) worker.join();
    return sound;
  }

 private:
  void work() {
    for (;;) {
      std::unique_lock lock(mutex);
      if (taken == paths.size()) return;
      const size_t mine = taken++;
      lock.unlock();
      Line line = measure(paths[mine], settings.csv);
      lock.lock();
      lines[mine] = std::move(line);
      ready.notify_one();
    }
  }

  bool write() {
    Progress progress(paths.size());
    bool sound = true;
    for (size_t i = 0; i < paths.size(); ++i) {
      std::unique_lock lock(mutex);
      ready.wait(lock, [&] { return lines[i].has_value(); });
      const Line line = *std::exchange(lines[i], std::nullopt);
      lock.unlock();
      puts(line.text.c_str());
      fflush(stdout);
      sound &= !line.failed;
      progress.show(i + 1);
    }
    return sound;
  }

  const std::vector<std::string> &paths;
  const QualitySettings &settings;
  std::mutex mutex;
  std::condition_variable ready;
  size_t taken = 0;
  std::vector<std::optional<Line>> lines;
};

}  // namespace

int measureQuality(const QualitySettings &settings) {
  const std::vector<std::string> paths = allPaths(settings.paths);
  if (settings.csv) {
    std::string header;
    for (const char *column : kColumns) header.append(header.empty() ? "" : ",").append(column);
    puts(header.c_str());
  }
  return Batch(paths, settings).run() ? kExitDone : kExitUsage;
}

}  // namespace kelm::tools
