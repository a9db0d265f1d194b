// SPDX-License-Identifier: Apache-2.0
// What was measured, as a file of tab-separated lines: bench/recorded.tsv.
#ifndef KELMTROVA_BENCH_RESULTS_H
#define KELMTROVA_BENCH_RESULTS_H

#include <string>
#include <vector>

namespace kelm::bench {

struct Result {
  std::string name;
  std::string peer;
  double ratio;  // ours / theirs, the median of the rounds
  double low;    // its quartiles
  double high;
  double microseconds;  // of a call of ours
  double aim;
};

struct Results {
  std::vector<Result> all;

  // Without any when the file is not there.
  static Results read(const char *path);
  bool write(const char *path) const;
  // The same pair, or null.
  const Result *find(const Result &result) const;
};

// By more than the spread of both.
bool isSlower(const Result &now, const Result &before);

}  // namespace kelm::bench

#endif
