// SPDX-License-Identifier: Apache-2.0
#include "tools/image/lines.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "tools/failure.h"
#include "tools/output.h"
#include "tools/text.h"

namespace kelm::tools {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Where the line that begins at `from` ends, behind its line feed; 0 when it has none. A quoted field of CSV can hold
// line feeds.
size_t endOfLine(std::string_view text, size_t from, bool csv) {
  bool quoted = false;
  for (size_t i = from; i < text.size(); ++i) {
    if (csv && text[i] == '"') quoted = !quoted;
    if (text[i] == '\n' && !quoted) return i + 1;
  }
  return 0;
}

}  // namespace

std::string LineForm::heading() const {
  std::string line;
  if (!csv_) return line;
  for (const std::string &column : columns_) line.append(line.empty() ? "" : ",").append(column);
  return line;
}

std::string LineForm::line(const nlohmann::ordered_json &record) const {
  if (!csv_) return jsonText(record, -1);
  std::string line;
  for (const std::string &column : columns_) {
    const nlohmann::ordered_json &value = record.at(column);
    if (!line.empty()) line += ',';
    if (!value.is_null()) line += value.is_string() ? csvField(value.get<std::string>()) : value.dump();
  }
  return line;
}

std::string LineForm::key(const std::string &path) const { return csv_ ? csvField(path) : jsonText(path, -1); }

std::string LineForm::keyOfSound(std::string_view line) const {
  if (csv_) {
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '"') quoted = !quoted;
      // The last column is the error.
      if (line[i] == ',' && !quoted) return line.ends_with(",") ? std::string(line.substr(0, i)) : "";
    }
    return "";
  }
  const auto record = nlohmann::ordered_json::parse(line, nullptr, false);
  if (!record.is_object() || !record.contains("path") || !record.contains("error")) return "";
  return record["error"].is_null() ? jsonText(record["path"], -1) : "";
}

LineSink::LineSink(const LineForm &form, std::string path, bool resume) : form_(form), path_(std::move(path)) {
  if (path_.empty()) {
    if (!form_.heading().empty()) put(form_.heading());
    return;
  }
  std::error_code ignored;
  const std::string place = placeOf(path_);
  const bool inPlace = place.empty();
  if (!inPlace) {
    path_ = place;
    part_ = place + ".part";
  }
  std::string before;
  if (resume && !inPlace) before = contentOf(fs::exists(part_, ignored) ? part_ : path_);
  file_.reset(inPlace ? fopen(path_.c_str(), "ae") : fopen(part_.c_str(), "we"));
  check(file_ != nullptr);
  if (!form_.heading().empty()) put(form_.heading());
  keep(before);
}

// What was done before; lines with an error, and one that was cut off, are tried again.
void LineSink::keep(const std::string &text) {
  for (size_t from = 0, to; (to = endOfLine(text, from, form_.csv())) != 0; from = to) {
    const std::string line = text.substr(from, to - from - 1);
    const std::string key = form_.keyOfSound(line);
    if (!key.empty() && line != form_.heading() && done_.insert(key).second) put(line);
  }
}

void LineSink::put(const std::string &line) {
  if (!file_) {
    kelm::tools::put(line + '\n');
    return flushOutput();
  }
  check(fputs((line + '\n').c_str(), file_.get()) >= 0 && fflush(file_.get()) == 0);
}

void LineSink::finish() {
  if (!file_) return;
  check(part_.empty() || fsync(fileno(file_.get())) == 0);
  check(fclose(file_.release()) == 0);
  check(part_.empty() || rename(part_.c_str(), path_.c_str()) == 0);
}

void LineSink::check(bool sound) const {
  if (!sound) throw FileFailure((part_.empty() ? path_ : part_) + ": " + strerror(errno));
}

}  // namespace kelm::tools
