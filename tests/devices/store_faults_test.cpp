// SPDX-License-Identifier: Apache-2.0
// What a store is worth when the system fails it: each step that can fail does so in turn, the process is killed there,
// memory is exhausted there. Afterwards the store holds what it held before or what it was to hold, and who was told of
// success finds it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <functional>
#include <set>

#include "tests/devices/stores.h"
#include "tests/support/allocation.h"

namespace {

struct Faults {
  int at = 0;  // the step that fails, from 1; 0: none
  int seen = 0;
  int error = ENOSPC;
  bool kill = false;
};
Faults faults;

bool refused() {
  if (faults.at == 0 || ++faults.seen != faults.at) return false;
  if (faults.kill) _exit(99);
  errno = faults.error;
  return true;
}

long made(long result) { return result; }

}  // namespace

// In the place of the C library's, for SQLite and the device manager.
#pragma GCC visibility push(default)
extern "C" {
ssize_t pwrite64(int file, const void *bytes, size_t count, off64_t offset) {
  return refused() ? -1 : made(syscall(SYS_pwrite64, file, bytes, count, offset));
}
int ftruncate64(int file, off64_t size) noexcept {
  return static_cast<int>(refused() ? -1 : made(syscall(SYS_ftruncate, file, size)));
}
int fsync(int file) { return static_cast<int>(refused() ? -1 : made(syscall(SYS_fsync, file))); }
int fdatasync(int file) { return static_cast<int>(refused() ? -1 : made(syscall(SYS_fdatasync, file))); }
int link(const char *from, const char *to) noexcept {
  return static_cast<int>(refused() ? -1 : made(syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0)));
}
int rename(const char *from, const char *to) noexcept {
  return static_cast<int>(refused() ? -1 : made(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0)));
}
int mkdir(const char *path, mode_t mode) noexcept {
  return static_cast<int>(refused() ? -1 : made(syscall(SYS_mkdirat, AT_FDCWD, path, mode)));
}
int open64(const char *path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return static_cast<int>(refused() ? -1 : made(syscall(SYS_openat, AT_FDCWD, path, flags, mode)));
}
// Journals are removed to commit. What cleans up after a failure is spared: what it cannot remove stays.
int unlink(const char *path) noexcept {
  const bool commits = std::string_view(path).ends_with("-journal");
  return static_cast<int>(commits && refused() ? -1 : made(syscall(SYS_unlinkat, AT_FDCWD, path, 0)));
}
}
#pragma GCC visibility pop

namespace {

using Path = std::filesystem::path;

// Something done to the token in a store, opened before: whether it was said to have succeeded.
struct Operation {
  const char *name;
  bool (*run)(const Device &token, const Path &store);
  bool first = false;    // on a store of the first version, which the operation opens
  bool partway = false;  // may stop after counting a try
  bool whole = false;    // reads or writes a whole store
};

bool says(const Device &token, const char *command, const char *answer) { return token(command) == answer; }

constexpr const char *kRightPin = "00 20 00 00 04 32 34 36 38";

const Operation kOperations[] = {
    {"enroll", [](const Device &token, const Path &) { return says(token, "80 FC 01 03 02", "00 00 9000"); }},
    {"create a file",
     [](const Device &token, const Path &) { return says(token, "80 E0 02 00 07 28 03 88 EF EF FF FF", "9000"); }},
    {"wrong PIN", [](const Device &token, const Path &) { return says(token, "00 20 00 00 04 31 32 33 34", "63C4"); }},
    {"right PIN", [](const Device &token, const Path &) { return says(token, kRightPin, "9000"); }, false, true},
    {"no match", [](const Device &token, const Path &) { return says(token, "80 FD 06 03 01", "63C2"); }},
    {"lift", [](const Device &token, const Path &) { return simulatorRemoveFinger(token.number) == 0; }},
    {"change PIN",
     [](const Device &token, const Path &) { return simulatorChangePin(token.number, "2468", "9999") == 0; }, false,
     true},
    {"convert", [](const Device &, const Path &store) { return Device(simulatorOpen(store.c_str())).number != 0; },
     true, false, true},
    {"export",
     [](const Device &token, const Path &store) {
       return simulatorExport(token.number, (store.parent_path() / "exported").c_str()) == 0;
     },
     false, false, true},
    {"create",
     [](const Device &, const Path &store) {
       return simulatorCreate((store.parent_path() / "new" / "new.db").c_str(), &kTenSlots) == 0;
     },
     false, false, true}};

class StoreFaults : public StoreTest, public testing::WithParamInterface<Operation> {
 protected:
  enum class Mode { kFail, kKill, kMemory };

  StoreFaults() {
    if (GetParam().first) {
      pristine = firstVersion();
    } else {
      const Device token(store);
      token.enroll("left thumb", 3);
      pristine = folder / "pristine";
    }
    if (!GetParam().first) std::filesystem::copy_file(store, pristine);
  }

  // The store, and what else the operation makes: absent, or whole.
  std::string outcome() const {
    std::string text = GetParam().first ? "" : contentsOf(store);
    if (GetParam().first && std::filesystem::exists(store)) text = contentsOf(store);
    const Path exported = store.parent_path() / "exported";
    const Path copy = store.parent_path() / "copy.db";
    if (std::filesystem::exists(exported)) {
      text +=
          simulatorImport(exported.c_str(), copy.c_str()) == 0 ? "\nexported " + contentsOf(copy) : "\nhalf an export";
    }
    const Path made = store.parent_path() / "new" / "new.db";
    if (std::filesystem::exists(made)) text += "\nnew " + contentsOf(made);
    return text;
  }

  void prepare() const {
    std::filesystem::remove_all(store.parent_path());
    std::filesystem::create_directory(store.parent_path());
    std::filesystem::copy_file(pristine, store);
  }
  // Runs the operation on a fresh store with its `at`-th step going wrong. `reached`: whether it got there.
  bool attempt(Mode mode, int at, bool &reached) const {
    prepare();
    const pid_t child = mode == Mode::kKill ? fork() : 0;
    if (child != 0) {
      int status = 0;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      reached = WEXITSTATUS(status) == 99;
      return WEXITSTATUS(status) == 0;
    }
    const Operation &operation = GetParam();
    const Device token(operation.first ? 0 : simulatorOpen(store.c_str()));
    if (!operation.first) token.takeFinger("ring finger");
    bool success = false;
    if (mode == Mode::kMemory) {
      const kelm::test::AllocationWatch watch(static_cast<std::uint64_t>(at));
      try {
        success = operation.run(token, store);
      } catch (const std::bad_alloc &) {  // the test's own
      }
      reached = watch.failed();
    } else {
      faults = {at, 0, ENOSPC, mode == Mode::kKill};
      success = operation.run(token, store);
      reached = faults.seen >= at;
      faults.at = 0;
    }
    if (mode == Mode::kKill) _exit(success ? 0 : 1);
    return success;
  }

  Path pristine;
};

TEST_P(StoreFaults, WholeOrNothing) {
  bool reached = false;
  ASSERT_TRUE(attempt(Mode::kFail, 0, reached)) << simulatorError();
  const std::string after = outcome();
  std::set<std::string> allowed = {after};
  prepare();
  if (!GetParam().first) Device(store.string()).takeFinger("ring finger");
  allowed.insert(GetParam().first ? after : outcome());
  if (GetParam().partway) {
    std::string counted = outcome();  // one try of five less
    allowed.insert(counted.replace(counted.find(" 5 "), 3, " 4 "));
  }
  for (const Mode mode : {Mode::kFail, Mode::kKill, Mode::kMemory}) {
    reached = true;
    // What opens a store allocates thousands of times.
    const bool manySteps = mode == Mode::kMemory && GetParam().whole;
    for (int at = 1; reached; at += manySteps ? 13 : 1) {
      SCOPED_TRACE(testing::Message() << "mode " << static_cast<int>(mode) << ", step " << at);
      const bool success = attempt(mode, at, reached);
      if (!success && mode != Mode::kKill) {
        for (const std::string &name : names())
          ASSERT_EQ(name.find("db."), std::string::npos) << name << " left behind";
      }
      const std::string now = outcome();
      ASSERT_TRUE(allowed.contains(now)) << now;
      ASSERT_TRUE(!success || now == after) << now;
      ASSERT_LT(at, 5000);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, StoreFaults, testing::ValuesIn(kOperations), [](const auto &tested) {
  std::string name = tested.param.name;
  std::erase_if(name, [](char letter) { return letter == ' '; });
  return name;
});

// A disk with room for this many bytes, as the limit on the size of a file has it.
TEST_F(StoreTest, IsMadeWholeOrNotAtAllOnAFullDisk) {
  rlimit unlimited{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const Path path = folder / "full" / "disk" / "token.db";
  int made = 0;
  for (rlim_t room = 0; room < 20000; room += 512) {
    const rlimit limited = {room, unlimited.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
    const bool success = simulatorCreate(path.c_str(), &kTenSlots) == 0;
    const SimulatorFailure failure = simulatorFailure();
    setrlimit(RLIMIT_FSIZE, &unlimited);
    if (success) {
      ++made;
      const Device token(path.string());
    } else {
      EXPECT_EQ(failure, SIMULATOR_DISK_FULL) << simulatorError();
      EXPECT_EQ(made, 0) << room;
    }
    EXPECT_EQ(std::filesystem::exists(folder / "full"), success);
    std::filesystem::remove_all(folder / "full");
  }
  EXPECT_GT(made, 0);
  std::signal(SIGXFSZ, handler);
}

}  // namespace
