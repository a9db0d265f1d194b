// SPDX-License-Identifier: Apache-2.0
#include "tools/image/worker.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "tools/image/foreign.h"

namespace kelm::tools {
namespace {

constexpr rlim_t kMemory = rlim_t{1} << 30;
constexpr int kSeconds = 10;       // of processor time for a picture
constexpr int kLongestWait = 120;  // seconds, should the machine be busy
constexpr size_t kLargestError = 400;

// Before each picture, and before each answer.
struct Request {
  uint64_t length;
};
struct Answer {
  int32_t width, height, resolution;  // all 0 when what follows is an error's text
  uint64_t length;
};

bool sendAll(int socket, const void *bytes, size_t length) {
  const char *at = static_cast<const char *>(bytes);
  while (length > 0) {
    const ssize_t sent = send(socket, at, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    at += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

bool receiveAll(int socket, void *bytes, size_t length) {
  char *at = static_cast<char *>(bytes);
  while (length > 0) {
    const ssize_t got = recv(socket, at, length, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    length -= static_cast<size_t>(got);
  }
  return true;
}

class Worker {
 public:
  Worker() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail(errno);
    socket_ = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::string name = "kelmtrova", word(kWorkerWord);
    char *words[] = {name.data(), word.data(), nullptr};
    const int error = posix_spawn(&process_, "/proc/self/exe", &actions, nullptr, words, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) {
      close(socket_);
      fail(error);
    }
  }
  // Without its socket a worker ends by itself; one that is still at a picture is ended.
  ~Worker() {
    close(socket_);
    if (process_ <= 0) return;  // ended already; kill() would take 0 for this process and its relatives
    if (busy_) kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

  // After an exception that is no answer the worker is of no more use.
  Picture decode(std::span<const uint8_t> bytes) {
    busy_ = true;
    const Request request{bytes.size()};
    Answer answer{};
    if (!sendAll(socket_, &request, sizeof request) || !sendAll(socket_, bytes.data(), bytes.size()) ||
        !waitForAnswer() || !receiveAll(socket_, &answer, sizeof answer)) {
      throw PictureError(reasonOfEnd());
    }
    if (answer.width > 0) checkSize(static_cast<uint32_t>(answer.width), static_cast<uint32_t>(answer.height));
    Picture picture(answer.width, answer.height);
    picture.resolution = answer.resolution;
    std::string error;
    if (answer.width == 0) error.resize(std::min<uint64_t>(answer.length, kLargestError));
    void *to = answer.width > 0 ? static_cast<void *>(picture.samples.data()) : error.data();
    const size_t expected = answer.width > 0 ? picture.samples.size() : error.size();
    if (answer.length != expected || !receiveAll(socket_, to, expected)) throw PictureError(reasonOfEnd());
    busy_ = false;
    if (!error.empty()) throw PictureError(error);
    return picture;
  }
  bool usable() const { return !busy_; }

 private:
  [[noreturn]] static void fail(int error) {
    throw PictureError(std::string("no process could be made to read it: ") + strerror(error));
  }

  bool waitForAnswer() {
    pollfd waiting{socket_, POLLIN, 0};
    int ready;
    do {
      ready = poll(&waiting, 1, kLongestWait * 1000);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
  }

  std::string reasonOfEnd() {
    int status = 0;
    const pid_t ended = waitpid(process_, &status, WNOHANG);
    if (ended == 0) {
      // It may be about to end, or hang.
      usleep(100'000);
      if (waitpid(process_, &status, WNOHANG) == 0) {
        kill(process_, SIGKILL);
        waitpid(process_, &status, 0);
      }
    }
    process_ = 0;
    const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    if (signal == SIGPROF) return "reading it takes more than " + std::to_string(kSeconds) + " seconds";
    if (signal == SIGKILL) return "reading it takes too long or too much memory";
    return "its content makes the decoder fail";
  }

  int socket_ = -1;
  pid_t process_ = 0;
  bool busy_ = false;
};

// Workers that wait for a picture.
class Pool {
 public:
  std::unique_ptr<Worker> take() {
    {
      const std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        std::unique_ptr<Worker> worker = std::move(idle_.back());
        idle_.pop_back();
        return worker;
      }
    }
    return std::make_unique<Worker>();
  }
  void giveBack(std::unique_ptr<Worker> worker) {
    const std::lock_guard lock(mutex_);
    idle_.push_back(std::move(worker));
  }

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<Worker>> idle_;
};

Pool &pool() {
  static Pool all;
  return all;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

void limit(__rlimit_resource resource, rlim_t most) {
  const rlimit limits{most, most};
  setrlimit(resource, &limits);
}

// Processor time from now on; the signal's default is to end the process.
void setTimer(int seconds) {
  itimerval timer{};
  timer.it_value.tv_sec = seconds;
  setitimer(ITIMER_PROF, &timer, nullptr);
}

bool answer(const std::vector<uint8_t> &bytes) {
  Picture picture;
  std::string error;
  try {
    picture = decodeForeign(bytes);
  } catch (const PictureError &failure) {
    error = std::string(failure.what()).substr(0, kLargestError);
  } catch (const std::bad_alloc &) {
    error = "reading it takes too much memory";
  }
  const Answer head{picture.width, picture.height, picture.resolution, error.size() + picture.samples.size()};
  return sendAll(STDIN_FILENO, &head, sizeof head) && sendAll(STDIN_FILENO, error.data(), error.size()) &&
         sendAll(STDIN_FILENO, picture.samples.data(), picture.samples.size());
}

}  // namespace

Picture decodeApart(std::span<const uint8_t> bytes) {
  std::unique_ptr<Worker> worker = pool().take();
  try {
    Picture picture = worker->decode(bytes);
    pool().giveBack(std::move(worker));
    return picture;
  } catch (...) {
    if (worker->usable()) pool().giveBack(std::move(worker));
    throw;
  }
}

int serveAsWorker() {
  close_range(STDERR_FILENO + 1, ~0u, 0);
  // The sanitizers reserve more addresses than any limit.
  if (!kSanitized) limit(RLIMIT_AS, kMemory);
  limit(RLIMIT_CORE, 0);
  limit(RLIMIT_FSIZE, 0);
  std::signal(SIGPROF, SIG_DFL);
  for (Request request{}; receiveAll(STDIN_FILENO, &request, sizeof request);) {
    if (request.length > kLargestFile) return 1;
    std::vector<uint8_t> bytes(request.length);
    if (!receiveAll(STDIN_FILENO, bytes.data(), bytes.size())) return 1;
    setTimer(kSeconds);
    const bool sent = answer(bytes);
    setTimer(0);
    if (!sent) return 1;
  }
  return 0;
}

}  // namespace kelm::tools
