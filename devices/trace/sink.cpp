// SPDX-License-Identifier: Apache-2.0
#include "devices/trace/sink.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace kelm::trace {
namespace {

constexpr int kPatienceMs = 1000;

// Keeps the signals of a failing write away from the program: a pipe without a reader, a limit on the size of files.
class QuietSignals {
 public:
  QuietSignals() {
    sigemptyset(&failures_);
    sigaddset(&failures_, SIGPIPE);
    sigaddset(&failures_, SIGXFSZ);
    sigset_t pending;
    sigpending(&pending);
    alreadyPending_ = sigismember(&pending, SIGPIPE) == 1 || sigismember(&pending, SIGXFSZ) == 1;
    pthread_sigmask(SIG_BLOCK, &failures_, &before_);
  }
  ~QuietSignals() {
    const timespec now{};
    while (!alreadyPending_ && sigtimedwait(&failures_, nullptr, &now) > 0) continue;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  QuietSignals(const QuietSignals &) = delete;
  QuietSignals &operator=(const QuietSignals &) = delete;

 private:
  sigset_t failures_;
  sigset_t before_;
  bool alreadyPending_;
};

// The bytes written before a failure, whose number is in errno then.
std::size_t writeWhatGoes(int file, std::string_view bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t moved = ::write(file, bytes.data() + written, bytes.size() - written);
    if (moved >= 0) {
      written += static_cast<std::size_t>(moved);
    } else if (errno == EAGAIN) {
      pollfd room = {file, POLLOUT, 0};
      if (poll(&room, 1, kPatienceMs) == 0) {
        errno = EAGAIN;
        break;
      }
    } else if (errno != EINTR) {
      break;
    }
  }
  return written;
}

}  // namespace

// Without O_NONBLOCK a pipe would wait for its reader here.
Sink::Sink(std::string name)
    : name_(std::move(name)),
      file_(open(name_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                 S_IRUSR | S_IWUSR)) {
  if (file_ < 0) giveUp(errno);
}

Sink::~Sink() {
  if (file_ >= 0) close(file_);
}

void Sink::write(std::string_view record) {
  if (file_ < 0) return;
  const QuietSignals quiet;
  const std::size_t written = writeWhatGoes(file_, record);
  if (written == record.size()) return;
  const int why = errno;
  // Half a record would make the whole trace unreadable.
  struct stat about;
  const bool cut = written > 0 && fstat(file_, &about) == 0 && S_ISREG(about.st_mode) &&
                   ftruncate(file_, about.st_size - static_cast<off_t>(written)) == 0;
  static_cast<void>(cut);
  giveUp(why);
}

void Sink::giveUp(int why) {
  if (file_ >= 0) close(file_);
  file_ = -1;
  error_ = name_ + ": " + std::strerror(why);
}

}  // namespace kelm::trace
