// SPDX-License-Identifier: Apache-2.0
#include "bench/results.h"

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <sstream>

namespace kelm::bench {
namespace {

constexpr char kHeader[] = "ours\tpeer\tratio\tlow\thigh\tmicroseconds\taim";

// "inf" is no number to a stream.
double numberFrom(std::istream &line) {
  std::string field;
  std::getline(line, field, '\t');
  return std::stod(field);
}

}  // namespace

Results Results::read(const char *path) {
  Results results;
  std::ifstream file(path);
  std::string text;
  std::getline(file, text);
  while (std::getline(file, text)) {
    std::istringstream line(text);
    Result result;
    std::getline(line, result.name, '\t');
    std::getline(line, result.peer, '\t');
    for (double *number : {&result.ratio, &result.low, &result.high, &result.microseconds, &result.aim}) {
      *number = numberFrom(line);
    }
    results.all.push_back(result);
  }
  return results;
}

bool Results::write(const char *path) const {
  std::ofstream file(path);
  file << kHeader << '\n' << std::setprecision(4);
  for (const Result &one : all) {
    file << one.name << '\t' << one.peer << '\t' << one.ratio << '\t' << one.low << '\t' << one.high << '\t'
         << one.microseconds << '\t' << one.aim << '\n';
  }
  return static_cast<bool>(file.flush());
}

const Result *Results::find(const Result &result) const {
  const auto found = std::find_if(all.begin(), all.end(), [&](const Result &other) {
    return other.name == result.name && other.peer == result.peer;
  });
  return found == all.end() ? nullptr : &*found;
}

bool isSlower(const Result &now, const Result &before) {
  return now.ratio - before.ratio > std::max(now.high - now.low, before.high - before.low);
}

}  // namespace kelm::bench
