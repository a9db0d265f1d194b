// SPDX-License-Identifier: Apache-2.0
#include "devices/simulated/store_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

namespace kelm::devices {
namespace {

// A file that is filled under another name beside its place and put there at the end, so that nobody meets a half-made
// token. Whatever was made for it and is not needed goes with it.
class Draft {
 public:
  explicit Draft(const std::string &place) : place_(place), path_(place + ".XXXXXX") {
    makeFolders();
    const int file = mkstemp(path_.data());
    if (file < 0) {
      const int error = errno;
      removeFolders();
      throw systemFailure(place_, error);
    }
    close(file);
  }
  ~Draft() {
    for (const char *suffix : {"", "-journal"}) unlink((path_ + suffix).c_str());
    if (!published_) removeFolders();
  }
  Draft(const Draft &) = delete;
  Draft &operator=(const Draft &) = delete;

  // Error texts speak of the place.
  Store open(int flags) const { return Store(Database(path_.c_str(), place_, flags)); }

  void publishNew() {
    // Some file systems have no hard links; there, a rename that replaces nothing.
    if (link(path_.c_str(), place_.c_str()) != 0) {
      if (errno == EEXIST) throw systemFailure(place_, EEXIST);
      if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, place_.c_str(), RENAME_NOREPLACE) != 0) {
        throw systemFailure(place_, errno);
      }
    }
    if (const int error = synchroniseFolder()) {
      unlink(place_.c_str());
      throw systemFailure(place_, error);
    }
    published_ = true;
  }
  void publishReplacing() {
    if (rename(path_.c_str(), place_.c_str()) != 0) throw systemFailure(place_, errno);
    published_ = true;
    if (const int error = synchroniseFolder()) throw systemFailure(place_, error);
  }

 private:
  std::string folder() const {
    const std::string parent = std::filesystem::path(place_).parent_path().string();
    return parent.empty() ? "." : parent;
  }
  void makeFolders() {
    std::filesystem::path path;
    for (const std::filesystem::path &part : std::filesystem::path(folder())) {
      path /= part;
      if (mkdir(path.c_str(), 0700) == 0) {
        folders_.push_back(path.string());
      } else if (errno != EEXIST && access(path.c_str(), F_OK) != 0) {
        const int error = errno == ENOENT ? EACCES : errno;
        removeFolders();
        throw systemFailure(place_, error);
      }
    }
  }
  void removeFolders() {
    for (; !folders_.empty(); folders_.pop_back()) rmdir(folders_.back().c_str());
  }
  // 0, or the system's error number.
  int synchroniseFolder() const {
    const int file = ::open(folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file < 0) return errno;
    const int error = fsync(file) == 0 || errno == EINVAL ? 0 : errno;
    close(file);
    return error;
  }

  std::string place_;
  std::string path_;
  std::vector<std::string> folders_;
  bool published_ = false;
};

// Fills a draft by `write` and holds that it can be read again.
template <typename Write>
void fill(const Draft &draft, std::int64_t applicationId, Write write) {
  {
    Store store = draft.open(SQLITE_OPEN_READWRITE);
    // Most records are short; small pages make small stores.
    store.database().execute("PRAGMA page_size = 1024");
    Transaction transaction(store.database());
    store.layOut(applicationId);
    write(store);
    transaction.commit();
  }
  Store written = draft.open(SQLITE_OPEN_READWRITE);
  written.identify({applicationId});
  Transaction reading(written.database());
  written.check();
}

template <typename Write>
void makeStore(const std::string &path, Write write) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) throw systemFailure(path, EEXIST);
  Draft draft(path);
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
  Draft draft(placeToReplace(file));
  Transaction reading(store.database());
  store.check();
  fill(draft, kExportId, [&](Store &copy) {
    store.copyTo(copy);
    copy.setFinger(std::nullopt);
  });
  draft.publishReplacing();
}

}  // namespace kelm::devices
