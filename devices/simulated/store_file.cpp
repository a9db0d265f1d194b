// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/store_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

namespace kelm::devices {
namespace {

enum class Missing { kIsMade, kIsAnError };

// The folder of a file, and those on the way to it that had to be made, which go again unless they are kept.
class Folders {
 public:
  Folders(const std::string &file, Missing missing) : path_(std::filesystem::path(file).parent_path().string()) {
    if (path_.empty()) path_.push_back('.');
    try {
      if (missing == Missing::kIsMade) make(file);
    } catch (...) {
      remove();
      throw;
    }
  }
  ~Folders() {
    if (!kept_) remove();
  }
  Folders(const Folders &) = delete;
  Folders &operator=(const Folders &) = delete;

  void keep() { kept_ = true; }
  // 0, or the system's error number.
  int synchronise() const {
    const int folder = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return errno;
    const int error = fsync(folder) == 0 || errno == EINVAL ? 0 : errno;
    close(folder);
    return error;
  }

 private:
  void make(const std::string &file) {
    std::filesystem::path way;
    for (const std::filesystem::path &part : std::filesystem::path(path_)) {
      way /= part;
      made_.push_back(way.string());
      if (mkdir(way.c_str(), 0700) == 0) continue;
      const int error = errno;
      made_.pop_back();
      if (error != EEXIST && access(way.c_str(), F_OK) != 0) throw systemFailure(file, error);
    }
  }
  void remove() {
    for (; !made_.empty(); made_.pop_back()) rmdir(made_.back().c_str());
  }

  std::string path_;
  std::vector<std::string> made_;
  bool kept_ = false;
};

// A file that is filled under another name beside its place and put there at the end, so that nobody meets a half-made
// token. What is not needed goes with the draft, for which no memory must be needed.
class Draft {
 public:
  Draft(const std::string &place, Missing folders)
      : place_(place), folders_(place, folders), path_(place + ".XXXXXX"), journal_(path_ + "-journal") {
    const int file = mkstemp(path_.data());
    if (file < 0 && errno == ENOENT) throw StoreError(SIMULATOR_BAD_ARGUMENT, place_ + ": its folder does not exist");
    if (file < 0) throw systemFailure(place_, errno);
    close(file);
    std::copy(path_.begin(), path_.end(), journal_.begin());
  }
  ~Draft() {
    unlink(path_.c_str());
    unlink(journal_.c_str());
  }
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;

  // Error texts speak of the place.
  Store openStore() const { return Store(Database(path_.c_str(), place_, SQLITE_OPEN_READWRITE)); }

  void publishNew() {
    // Some file systems have no hard links; there, a rename that replaces nothing.
    if (link(path_.c_str(), place_.c_str()) != 0) {
      if (errno == EEXIST) throw systemFailure(place_, EEXIST);
      if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, place_.c_str(), RENAME_NOREPLACE) != 0) {
        throw systemFailure(place_, errno);
      }
    }
    if (const int error = folders_.synchronise()) {
      unlink(place_.c_str());
      throw systemFailure(place_, error);
    }
    folders_.keep();
  }
  void publishReplacing() {
    if (rename(path_.c_str(), place_.c_str()) != 0) throw systemFailure(place_, errno);
    folders_.keep();
    if (const int error = folders_.synchronise()) throw systemFailure(place_, error);
  }

 private:
  std::string place_;
  Folders folders_;
  std::string path_;
  std::string journal_;
};

// Fills a draft by `write` and holds that it can be read again.
template <typename Write>
void fill(const Draft &draft, std::int64_t applicationId, Write write) {
  {
    Store store = draft.openStore();
    // Most records are short; small pages make small stores.
    store.database().execute("PRAGMA page_size = 1024");
    Transaction transaction(store.database());
    store.layOut(applicationId);
    write(store);
    transaction.commit();
  }
  Store written = draft.openStore();
  written.identify({applicationId});
  Transaction reading(written.database());
  written.check();
}

template <typename Write>
void makeStore(const std::string &path, Write write) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) throw systemFailure(path, EEXIST);
  Draft draft(path, Missing::kIsMade);
  fill(draft, kStoreId, write);
  draft.publishNew();
}

// Where a file that is to be replaced lies, links followed.
std::string placeToReplace(const std::string &file) {
  struct stat status {};
  if (lstat(file.c_str(), &status) != 0) {
    if (errno != ENOENT) throw systemFailure(file, errno);
    return file;
  }
  const auto refuse = [&] {
    throw StoreError(SIMULATOR_STORE_EXISTS, file + ": exists and is no exported token, so it is left alone");
  };
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(file.c_str(), nullptr), &std::free);
  if (!real || stat(real.get(), &status) != 0 || !S_ISREG(status.st_mode)) refuse();
  try {
    Store(Database(real.get(), file, SQLITE_OPEN_READONLY)).identify({kExportId});
  } catch (const StoreError &error) {
    if (error.kind == SIMULATOR_NOT_A_STORE) refuse();
    // A damaged export, or one of a later version, is an export still.
    if (error.kind != SIMULATOR_STORE_DAMAGED && error.kind != SIMULATOR_LATER_VERSION) throw;
  }
  return real.get();
}

}  // namespace

void createStore(const std::string &path, const Personalisation &personalisation) {
  makeStore(path, [&](Store &store) { store.personalise(personalisation); });
}

void importStore(const std::string &file, const std::string &path) {
  Store source(Database(file.c_str(), file, SQLITE_OPEN_READONLY));
  if (source.identify({kExportId, kStoreId}) == kFirstVersion) {
    throw StoreError(SIMULATOR_NOT_A_STORE, file + ": a store of the first version; opening it as a token converts it");
  }
  Transaction reading(source.database());
  source.check();
  makeStore(path, [&](Store &store) { source.copyTo(store); });
}

void exportStore(Store &store, const std::string &file) {
  Draft draft(placeToReplace(file), Missing::kIsAnError);
  Transaction reading(store.database());
  store.check();
  fill(draft, kExportId, [&](Store &copy) {
    store.copyTo(copy);
    copy.setFinger(std::nullopt);
  });
  draft.publishReplacing();
}

}  // namespace kelm::devices
