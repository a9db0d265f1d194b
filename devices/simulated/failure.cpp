// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/failure.h"

#include <cerrno>
#include <cstring>
#include <new>

namespace kelm::devices {
namespace {

struct LastFailure {
  SimulatorFailure kind = SIMULATOR_OK;
  std::string words;
};

LastFailure &lastFailure() {
  static thread_local LastFailure last;
  return last;
}

struct SystemFailure {
  int error;
  SimulatorFailure kind;
  const char *words;
};

constexpr SystemFailure kSystemFailures[] = {
    {ENOENT, SIMULATOR_NO_STORE, "there is no token"},
    {ENOTDIR, SIMULATOR_BAD_ARGUMENT, "a part of the path is no folder"},
    {EEXIST, SIMULATOR_STORE_EXISTS, "exists already"},
    {EISDIR, SIMULATOR_NOT_A_STORE, "is a folder, not the store of a token"},
    {ENOSPC, SIMULATOR_DISK_FULL, "the disk is full"},
    {EDQUOT, SIMULATOR_DISK_FULL, "the disk quota is used up"},
    {EFBIG, SIMULATOR_DISK_FULL, "larger than a file may become"},
    {EROFS, SIMULATOR_STORE_READ_ONLY, "lies on a read-only file system"},
    {EACCES, SIMULATOR_NO_PERMISSION, "no permission for the file or its folder"},
    {EPERM, SIMULATOR_NO_PERMISSION, "no permission for the file or its folder"},
    {ENOMEM, SIMULATOR_NO_MEMORY, "memory is exhausted"},
};

}  // namespace

StoreError systemFailure(const std::string &name, int error) {
  for (const SystemFailure &each : kSystemFailures) {
    if (each.error == error) return {each.kind, name + ": " + each.words};
  }
  return {SIMULATOR_STORE_FAILED, name + ": " + std::strerror(error)};
}

void rememberFailure(const std::exception &error) noexcept {
  LastFailure &last = lastFailure();
  const auto *known = dynamic_cast<const StoreError *>(&error);
  last.kind = known                                          ? known->kind
              : dynamic_cast<const std::bad_alloc *>(&error) ? SIMULATOR_NO_MEMORY
                                                             : SIMULATOR_STORE_FAILED;
  try {
    last.words = last.kind == SIMULATOR_NO_MEMORY ? "memory is exhausted" : error.what();
  } catch (...) {
    last.words.clear();
  }
}

}  // namespace kelm::devices

SimulatorFailure simulatorFailure(void) { return kelm::devices::lastFailure().kind; }

const char *simulatorError(void) { return kelm::devices::lastFailure().words.c_str(); }
