// SPDX-License-Identifier: Apache-2.0
#include "tools/output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/failure.h"
#include "tools/text.h"

namespace kelm::tools {

namespace {

namespace fs = std::filesystem;

bool quietly = false;
bool statusLine = false;

[[noreturn]] void failFile(const std::string &path, int error) { throw FileFailure(path + ": " + strerror(error)); }

[[noreturn]] void failOutput() {
  const int error = errno;
  std::clearerr(stdout);
  throw Failure(kExitUsage, fmt::format("the output could not be written: {}", strerror(error)), "", "output");
}

// An open file for writing; close() tells whether all of it arrived.
class Sink {
 public:
  explicit Sink(int descriptor) : descriptor_(descriptor) {}
  ~Sink() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  bool opened() const { return descriptor_ >= 0; }
  bool write(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
      const ssize_t written = ::write(descriptor_, bytes.data(), bytes.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    return true;
  }
  bool sync() { return fsync(descriptor_) == 0; }
  bool setMode(mode_t mode) { return fchmod(descriptor_, mode) == 0; }
  bool close() {
    const int descriptor = descriptor_;
    descriptor_ = -1;
    return ::close(descriptor) == 0;
  }

 private:
  int descriptor_;
};

// Where the links lead, also those to a file that is not there yet.
fs::path target(const std::string &path) {
  constexpr int kMostLinks = 40;
  fs::path place = path;
  std::error_code error;
  for (int i = 0; i < kMostLinks && fs::is_symlink(fs::symlink_status(place, error)); ++i) {
    // What lies here is an open file of this process: replacing its name would miss it.
    const std::string text = place.lexically_normal().string();
    if (text.starts_with("/proc/") || text.starts_with("/dev/")) return {};
    const fs::path next = fs::read_symlink(place, error);
    if (error) break;
    place = next.is_absolute() ? next : place.parent_path() / next;
  }
  return place;
}

void writeInPlace(const std::string &path, std::span<const std::uint8_t> bytes) {
  Sink sink(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  if (!sink.opened() || !sink.write(bytes) || !sink.close()) failFile(path, errno);
}

mode_t modeOfNewFiles() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

void replace(const std::string &path, const fs::path &place, std::span<const std::uint8_t> bytes, mode_t mode) {
  // A short name of its own: the file's may be as long as a name can be.
  std::string beside = (place.parent_path() / ".kelmtrova-XXXXXX").string();
  Sink sink(mkostemp(beside.data(), O_CLOEXEC));
  if (!sink.opened()) failFile(path, errno);
  bool whole = sink.write(bytes) && sink.setMode(mode) && sink.sync() && sink.close();
  whole = whole && std::rename(beside.c_str(), place.c_str()) == 0;
  const int error = errno;
  if (whole) return;
  unlink(beside.c_str());
  failFile(path, error);
}

}  // namespace

void put(std::string_view text) {
  if (quietly) return;
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) failOutput();
}

void flushOutput() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) failOutput();
}

void putError(std::string_view line, Tone tone) {
  if (quietly) return;
  const std::size_t colon = tone == Tone::kPlain ? 0 : std::min(line.find(':'), line.size());
  std::string text = tone == Tone::kPlain ? "" : toned(shown(line.substr(0, colon)), tone, STDERR_FILENO);
  putErrorLines(text + shown(line.substr(colon)) + '\n');
}

void putErrorLines(std::string_view lines) {
  if (quietly) return;
  std::fflush(stdout);
  clearStatusLine();
  std::fwrite(lines.data(), 1, lines.size(), stderr);
}

void showStatusLine(std::string_view line) {
  const std::string text = fmt::format("\r{}\033[K", line);
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  statusLine = true;
}

void clearStatusLine() {
  if (statusLine) std::fputs("\r\033[K", stderr);
  statusLine = false;
}

bool isStatusLineShown() { return statusLine; }

void setQuiet(bool quiet) { quietly = quiet; }
bool isQuiet() { return quietly; }

std::string jsonText(const nlohmann::ordered_json &json, int indent) {
  const std::string plain = json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  std::string text;
  std::string_view rest = plain;
  while (!rest.empty()) {
    const std::size_t length = rest.front() == '\n' ? 1 : shownLength(rest);
    if (length != 0) {
      text += rest.substr(0, length);
      rest.remove_prefix(length);
      continue;
    }
    // Only a string can hold such a character.
    std::size_t end = 1;
    while (end < rest.size() && (static_cast<unsigned char>(rest[end]) & 0xC0) == 0x80) ++end;
    const std::string escaped = nlohmann::json(std::string(rest.substr(0, end))).dump(-1, ' ', true);
    text += std::string_view(escaped).substr(1, escaped.size() - 2);
    rest.remove_prefix(end);
  }
  return text;
}

std::string placeOf(const std::string &path) {
  struct stat status {};
  const bool isFile = stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
  return isFile ? target(path).string() : "";
}

void writeFile(const std::string &path, std::span<const std::uint8_t> bytes) {
  struct stat status {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) failFile(path, errno);
  if (exists && S_ISDIR(status.st_mode)) failFile(path, EISDIR);
  const fs::path place = placeOf(path);
  if (place.empty()) return writeInPlace(path, bytes);
  // Nobody may replace what they may not write.
  if (exists && access(path.c_str(), W_OK) != 0) failFile(path, errno);
  replace(path, place, bytes, exists ? status.st_mode & 07777 : modeOfNewFiles());
}

void writeFile(const std::string &path, std::string_view text) {
  writeFile(path, {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
}

std::string readWhole(const std::string &path, std::size_t most) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
  if (file == nullptr) failFile(path, errno);
  std::string bytes;
  char block[4096];
  while (const std::size_t got = std::fread(block, 1, sizeof block, file.get())) {
    bytes.append(block, got);
    if (bytes.size() > most) throw FileFailure(fmt::format("{}: larger than {} bytes", path, most));
  }
  if (std::ferror(file.get()) != 0) failFile(path, errno);
  return bytes;
}

}  // namespace kelm::tools
