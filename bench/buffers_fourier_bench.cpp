// SPDX-License-Identifier: Apache-2.0
// The transform against FFTW: with its plan made on each call, for ours computes its angles on each call, and with a
// plan that was made before.
#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <type_traits>

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

using Plan = std::unique_ptr<std::remove_pointer_t<fftwf_plan>, decltype(&fftwf_destroy_plan)>;

// In place. FFTW_MEASURE, which overwrites the signal, takes long and finds the fastest way.
Plan planFor(Signal &work, unsigned effort) {
  const fftwf_iodim dimension = {static_cast<int>(work.re.size()), 1, 1};
  return {fftwf_plan_guru_split_dft(1, &dimension, 0, nullptr, work.re.data(), work.im.data(), work.re.data(),
                                    work.im.data(), effort),
          fftwf_destroy_plan};
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
    const std::shared_ptr<std::remove_pointer_t<fftwf_plan>> prepared = planFor(*theirs, FFTW_MEASURE);
    fftwf_forget_wisdom();  // or the plans that are made on each call would profit by what was learnt here
    const auto planning = [=] {
      restart(*theirs, *source);
      fftwf_execute(planFor(*theirs, FFTW_ESTIMATE).get());
    };
    const auto executing = [=] {
      restart(*theirs, *source);
      fftwf_execute(prepared.get());
    };
    const auto add = [&](std::string name, auto transform) {
      name += std::to_string(n);
      const auto transforming = [=] {
        restart(*ours, *source);
        transform(ours->re.data(), ours->im.data(), n);
      };
      pairs.push_back({name, "FFTW, plan included", transforming, planning});
      pairs.push_back({name, "FFTW, plan made before", transforming, executing, kForOrientation});
    };
    add("FFT ", FFT);
    add("IFFT ", IFFT);
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
