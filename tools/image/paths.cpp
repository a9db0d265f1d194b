// SPDX-License-Identifier: Apache-2.0
#include "tools/image/paths.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tools/image/picture.h"

namespace kelm::tools {
namespace {

namespace fs = std::filesystem;

constexpr const char *kEndings[] = {".png", ".pgm",  ".pnm", ".ppm", ".pbm", ".tif", ".tiff", ".bmp",
                                    ".jpg", ".jpeg", ".jp2", ".j2k", ".wsq", ".gif", ".webp"};

bool endsAsPicture(const std::string &path) {
  return std::any_of(std::begin(kEndings), std::end(kEndings),
                     [&](const char *ending) { return hasExtension(path, ending); });
}

}  // namespace

PathSource::PathSource(std::vector<std::string> named, bool nullBytes)
    : named_(std::move(named)), nullBytes_(nullBytes) {}

std::optional<std::string> PathSource::next(const std::atomic<bool> &stop) {
  while (ready_.empty()) {
    if (stop) return std::nullopt;
    if (inList_) {
      inList_ = readList(stop);
      continue;
    }
    if (position_ == named_.size()) return std::nullopt;
    const std::string &path = named_[position_++];
    path == "-" ? void(inList_ = true) : expand(path);
  }
  std::string path = std::move(ready_.front());
  ready_.pop_front();
  return path;
}

std::optional<size_t> PathSource::total() {
  if (std::find(named_.begin(), named_.end(), "-") != named_.end()) return std::nullopt;
  for (; position_ < named_.size(); ++position_) expand(named_[position_]);
  return ready_.size();
}

void PathSource::expand(const std::string &path) {
  std::error_code error;
  if (!fs::is_directory(path, error)) return ready_.push_back(path);
  std::vector<std::string> found;
  fs::recursive_directory_iterator entry(path, fs::directory_options::skip_permission_denied, error), end;
  if (error) return ready_.push_back(path);  // reading it will say why
  for (; !error && entry != end; entry.increment(error)) {
    std::error_code ignored;
    const std::string name = entry->path().string();
    // A link that leads nowhere is a picture that cannot be read.
    const bool dangling = entry->is_symlink(ignored) && !entry->exists(ignored);
    if (!dangling && !entry->is_regular_file(ignored)) continue;
    endsAsPicture(name) ? found.push_back(name) : void(++passedOver_);
  }
  std::sort(found.begin(), found.end());
  ready_.insert(ready_.end(), found.begin(), found.end());
}

// Takes what has come of the list; false at its end.
bool PathSource::readList(const std::atomic<bool> &stop) {
  constexpr int kPatience = 200;  // milliseconds between looks at `stop`
  pollfd waiting{STDIN_FILENO, POLLIN, 0};
  while (poll(&waiting, 1, kPatience) <= 0) {
    if (stop) return false;
  }
  char bytes[1 << 16];
  const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
  if (got < 0 && errno == EINTR) return true;
  if (got < 0) throw FileFailure(std::string("standard input: ") + strerror(errno));
  const char end = nullBytes_ ? '\0' : '\n';
  read_.append(bytes, static_cast<size_t>(got));
  if (got == 0 && !read_.empty()) read_ += end;
  size_t from = 0;
  for (size_t to; (to = read_.find(end, from)) != std::string::npos; from = to + 1) {
    std::string entry = read_.substr(from, to - from);
    if (!nullBytes_ && entry.ends_with('\r')) entry.pop_back();
    if (!entry.empty()) expand(entry);
  }
  read_.erase(0, from);
  return got > 0;
}

}  // namespace kelm::tools
