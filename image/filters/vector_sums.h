// SPDX-License-Identifier: Apache-2.0
// The sum along a vector, step by step.
#ifndef KELMTROVA_IMAGE_FILTERS_VECTOR_SUMS_H
#define KELMTROVA_IMAGE_FILTERS_VECTOR_SUMS_H

#include <cstdint>
#include <type_traits>

namespace kelm::image {

// Signed samples are summed as unsigned ones, which wrap.
template <typename T>
using SumOf = std::conditional_t<std::is_same_v<T, std::int32_t>, std::uint32_t, T>;

// out[i * outStride] becomes the sum of the window of `size` around in[i * inStride]. The two do not overlap.
template <typename Out, typename In>
void vectorLocalSum(Out *out, const In *in, int outStride, int inStride, int n, std::uint8_t size) {
  using Sum = SumOf<Out>;
  if (out == nullptr || in == nullptr || n <= 0) {
    return;
  }
  const int half = size >> 1;
  Sum sum = static_cast<Sum>(in[0]);
  for (int i = 1; i <= half && i < n; ++i) {
    sum = static_cast<Sum>(sum + static_cast<Sum>(in[i * inStride]));
  }
  for (int i = 0; i < n; ++i) {
    out[i * outStride] = static_cast<Out>(sum);
    if (i + half + 1 < n) {
      sum = static_cast<Sum>(sum + static_cast<Sum>(in[(i + half + 1) * inStride]));
    }
    if (i >= half) {
      sum = static_cast<Sum>(sum - static_cast<Sum>(in[(i - half) * inStride]));
    }
  }
}

}  // namespace kelm::image

#endif
