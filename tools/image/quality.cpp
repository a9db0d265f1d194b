// SPDX-License-Identifier: Apache-2.0
#include "tools/image/quality.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "tools/exit_codes.h"
#include "tools/image/analysis.h"
#include "tools/output.h"
#include "tools/terminal.h"
#include "tools/text.h"

namespace kelm::tools {
namespace {

namespace fs = std::filesystem;

constexpr const char *kColumns[] = {"path",   "width",      "height",  "resolution",    "scale",
                                    "finger", "clarity",    "quality", "qualitySpread", "foreground",
                                    "period", "continuous", "error"};

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

std::string csvCell(const nlohmann::ordered_json &value) {
  if (value.is_null()) return "";
  return value.is_string() ? csvField(value.get<std::string>()) : value.dump();
}

std::string lineOf(const nlohmann::ordered_json &record, bool csv) {
  if (!csv) return jsonText(record, -1);
  std::string line;
  for (const char *column : kColumns) line.append(line.empty() ? "" : ",").append(csvCell(record.at(column)));
  return line;
}

Line measure(const std::string &path, bool csv) {
  nlohmann::ordered_json record;
  for (const char *column : kColumns) record[column] = nullptr;
  record["path"] = path;
  try {
    const Analysis analysis = analyse(readPicture(path), path);
    record.update(mainNumbers(analysis));
  } catch (const std::bad_alloc &) {
    record["error"] = "memory is exhausted";
  } catch (const std::exception &error) {
    const std::string message = error.what();
    // The line has its path already.
    record["error"] = message.rfind(path + ": ", 0) == 0 ? message.substr(path.size() + 2) : message;
  }
  return {lineOf(record, csv), !record["error"].is_null()};
}

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
    bool sound = false;
    std::exception_ptr failure;
    try {
      sound = write();
    } catch (...) {
      failure = std::current_exception();
      const std::lock_guard lock(mutex);
      taken = paths.size();
    }
    for (std::thread &worker : workers) worker.join();
    if (failure) std::rethrow_exception(failure);
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
    Progress progress("measuring", "pictures", paths.size());
    bool sound = true;
    for (size_t i = 0; i < paths.size(); ++i) {
      std::unique_lock lock(mutex);
      ready.wait(lock, [&] { return lines[i].has_value(); });
      const Line line = *std::exchange(lines[i], std::nullopt);
      lock.unlock();
      put(line.text + '\n');
      flushOutput();
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
    put(header + '\n');
  }
  return Batch(paths, settings).run() ? kExitDone : kExitUsage;
}

}  // namespace kelm::tools
