// SPDX-License-Identifier: Apache-2.0
// The transform against FFTW with its plan made on each call, for ours computes its angles on each call.
#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

#include "bench/bench.h"
#include "kelmtrova/image.h"

namespace kelm::bench {
namespace {

struct Signal {
  std::vector<float> re, im;
};

// Both from a fresh copy: the normalised transform applied again and again ends in denormal numbers.
void restart(Signal &work, const Signal &source) {
  std::copy(source.re.begin(), source.re.end(), work.re.begin());
  std::copy(source.im.begin(), source.im.end(), work.im.begin());
}

void transformWithFftw(Signal &work) {
  const fftwf_iodim dimension = {static_cast<int>(work.re.size()), 1, 1};
  fftwf_plan plan = fftwf_plan_guru_split_dft(1, &dimension, 0, nullptr, work.re.data(), work.im.data(), work.re.data(),
                                              work.im.data(), FFTW_ESTIMATE);
  fftwf_execute(plan);
  fftwf_destroy_plan(plan);
}

const Registration kPairs([] {
  std::vector<Pair> pairs;
  for (std::uint16_t n = 128; n <= 16384; n = static_cast<std::uint16_t>(2 * n)) {
    const auto source = std::make_shared<Signal>();
    for (int i = 0; i < n; ++i) {
      source->re.push_back(static_cast<float>(std::sin(i * 0.37) * 100));
      source->im.push_back(static_cast<float>(std::cos(i * 0.11) * 50));
    }
    const auto ours = std::make_shared<Signal>(*source);
    const auto theirs = std::make_shared<Signal>(*source);
    const auto theirJob = [=] {
      restart(*theirs, *source);
      transformWithFftw(*theirs);
    };
    pairs.push_back({"FFT " + std::to_string(n), "FFTW, plan included",
                     [=] {
                       restart(*ours, *source);
                       FFT(ours->re.data(), ours->im.data(), n);
                     },
                     theirJob});
    pairs.push_back({"IFFT " + std::to_string(n), "FFTW, plan included",
                     [=] {
                       restart(*ours, *source);
                       IFFT(ours->re.data(), ours->im.data(), n);
                     },
                     theirJob});
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
