// SPDX-License-Identifier: Apache-2.0
// The pictures of a batch, one after the other: files, folders, and lists that may still be being written.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace kelm::tools {

class PathSource {
 public:
  // `named` are files, folders (searched with everything below them, in order of their names) and "-" for a list on
  // standard input, whose entries end with a line feed, with or without a carriage return, or with a null byte.
  PathSource(std::vector<std::string> named, bool nullBytes);

  // The next path; nothing at the end, or once `stop` is set. Waits for a list that is still being written.
  std::optional<std::string> next(const std::atomic<bool> &stop);

  // Files that were passed over because their names do not end as pictures' do.
  size_t passedOver() const { return passedOver_; }
  // How many pictures there are in all; nothing when a list decides.
  std::optional<size_t> total();

 private:
  void expand(const std::string &path);
  bool readList(const std::atomic<bool> &stop);

  std::vector<std::string> named_;
  size_t position_ = 0;
  bool nullBytes_, inList_ = false;
  std::string read_;  // of the list, not yet an entry
  std::deque<std::string> ready_;
  size_t passedOver_ = 0;
};

}  // namespace kelm::tools
