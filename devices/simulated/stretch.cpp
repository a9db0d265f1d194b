// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/stretch.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "devices/failure.h"

namespace kelm::devices {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit(10);
constexpr std::chrono::milliseconds kPoll(2);

struct Free {
  void operator()(char *text) const { std::free(text); }
};

// One lock for all the names of a store.
std::string lockBeside(const std::string &store) {
  const std::unique_ptr<char, Free> resolved(realpath(store.c_str(), nullptr));
  return std::string(resolved ? resolved.get() : store.c_str()) + "-lock";
}

}  // namespace

Stretch::Stretch(const std::string &store) : path_(lockBeside(store)) { openFile(); }

Stretch::~Stretch() {
  if (file_ >= 0) close(file_);
}

int Stretch::openFile() {
  if (file_ < 0) file_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  const int error = errno;
  // Of a store that may only be read.
  if (file_ < 0) file_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  return file_ >= 0 ? 0 : error;
}

void Stretch::lock() {
  const Clock::time_point end = Clock::now() + kLimit;
  while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR)
      throw Failure(DEVICE_MANAGER_STORE_UNUSABLE, path_ + ": " + std::strerror(errno));
    if (Clock::now() >= end) {
      throw Failure(DEVICE_MANAGER_BUSY, "another program has kept the token to itself for more than " +
                                             std::to_string(kLimit.count()) + " seconds");
    }
    std::this_thread::sleep_for(kPoll);
  }
}

void Stretch::unlock() { flock(file_, LOCK_UN); }

void Stretch::begin() {
  if (count_ == 0 && !path_.empty()) {
    const int error = openFile();
    // Nobody writes where no lock may be made.
    const bool mayNot = error == EACCES || error == EPERM || error == EROFS;
    if (error == 0) {
      lock();
    } else if (!mayNot) {
      throw Failure(DEVICE_MANAGER_STORE_UNUSABLE, path_ + ": " + std::strerror(error));
    }
  }
  ++count_;
}

void Stretch::end() {
  if (count_ == 0) throw Failure(DEVICE_MANAGER_NO_STRETCH);
  if (--count_ == 0 && file_ >= 0) unlock();
}

Stretch::Turn::Turn(Stretch &stretch) : stretch_(stretch), taken_(stretch.count_ == 0 && stretch.file_ >= 0) {
  if (taken_) stretch_.lock();
}

Stretch::Turn::~Turn() {
  if (taken_) stretch_.unlock();
}

}  // namespace kelm::devices
