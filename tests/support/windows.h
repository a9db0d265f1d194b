// SPDX-License-Identifier: Apache-2.0
// The pictures and windows that the functions with a window are tried on.
#ifndef KELMTROVA_TESTS_SUPPORT_WINDOWS_H
#define KELMTROVA_TESTS_SUPPORT_WINDOWS_H

#include <vector>

namespace kelm::test {

struct Window {
  int height, width, sizeX, sizeY;
};

// Every length up to 130 in each direction, every window on small images, and a few large ones.
inline std::vector<Window> windows() {
  std::vector<Window> all = {{361, 257, 31, 9}, {130, 1025, 9, 9},   {40, 33, 5, 7},    {33, 40, 17, 15},
                             {41, 32, 5, 17},   {520, 33, 255, 255}, {3, 2000, 201, 3}, {1000, 1, 9, 99}};
  for (int n = 1; n <= 130; ++n) {
    const int size = 7 * n % 40;
    all.push_back({1 + n % 21, n, size, 1 + n % 12});
    all.push_back({n, 1 + n % 35, 1 + n % 12, size});
  }
  for (int size = 0; size < 256; ++size) {
    all.push_back({19, 67, size, 1 + size % 7});
    all.push_back({35, 18, 1 + size % 7, size});
  }
  return all;
}

}  // namespace kelm::test

#endif
