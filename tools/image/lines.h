// SPDX-License-Identifier: Apache-2.0
// The lines of a batch: on standard output, or in a file that takes its name when it is whole and can be gone on with.
#pragma once

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kelm::tools {

// The form of a line: JSON, or comma-separated values with the same names.
class LineForm {
 public:
  LineForm(std::vector<std::string> columns, bool csv) : columns_(std::move(columns)), csv_(csv) {}
  std::string heading() const;  // "" for JSON
  std::string line(const nlohmann::ordered_json &record) const;
  // How a line names its picture.
  std::string key(const std::string &path) const;
  // The key of a whole line that reports no error; "" for all others.
  std::string keyOfSound(std::string_view line) const;
  bool csv() const { return csv_; }

 private:
  std::vector<std::string> columns_;
  bool csv_;
};

class LineSink {
 public:
  // `path` is "" for standard output. The lines go to PATH.part, which becomes PATH in the end, links followed;
  // devices and pipes are written in place. With `resume` the sound lines of an earlier PATH.part, or else PATH, stay.
  LineSink(const LineForm &form, std::string path, bool resume);

  bool done(const std::string &path) const { return done_.count(form_.key(path)) != 0; }
  // Both throw a Failure when the line cannot be written.
  void put(const std::string &line);
  void finish();

 private:
  struct Closer {
    void operator()(FILE *file) const { fclose(file); }
  };
  void keep(const std::string &text);
  void check(bool sound) const;

  const LineForm &form_;
  std::string path_, part_;
  std::unique_ptr<FILE, Closer> file_;
  std::set<std::string> done_;
};

}  // namespace kelm::tools
