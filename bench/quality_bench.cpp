// SPDX-License-Identifier: Apache-2.0
// Gradients and block quality: against the loops written down plainly, and memcpy.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "kelmtrova/image.h"
#include "tests/support/plain/quality.h"

namespace kelm::bench {
namespace {

using Bytes = std::shared_ptr<std::vector<std::uint8_t>>;

// Volatile: the plain loop is not to be specialised for it; like the function it stands for, it serves any step.
const volatile int kStep = 4;

void ourGradients(const Bytes &image, Size size) {
  std::uint16_t **maps = FpGetImg4DirectionGradsEx(image->data(), size.height, size.width, 4);
  std::for_each_n(maps, 4, std::free);
  std::free(maps);
}

void ourQuality(const Bytes &image, Size size) {
  BlockQualityMap map = {};
  ImageBlkQuality(&map, image->data(), size.height, size.width, 0);
  std::free(map.grades);
}

const Registration kQuality([] {
  std::vector<Pair> pairs;
  for (const Size size : kSizes) {
    const auto image = std::make_shared<std::vector<std::uint8_t>>(ridgePicture(size.height, size.width));
    const auto copy = std::make_shared<std::vector<std::uint8_t>>(image->size());
    const auto copying = [=] { std::memcpy(copy->data(), image->data(), image->size()); };
    const auto gradients = [=] { ourGradients(image, size); };
    const auto quality = [=] { ourQuality(image, size); };
    const auto plain = [=] { plain::gradients(image->data(), size.height, size.width, kStep); };
    const auto plainGrades = [=] {
      plain::blockGrades(plain::gradients(image->data(), size.height, size.width, kStep), size.height, size.width);
    };
    pairs.push_back({named("FpGetImg4DirectionGradsEx", size), "the literal loop", gradients, plain, 0.125});
    pairs.push_back(
        {named("FpGetImg4DirectionGradsEx", size), "memcpy of the picture", gradients, copying, kForOrientation});
    pairs.push_back({named("ImageBlkQuality", size), "the literal loop", quality, plainGrades, 0.125});
    pairs.push_back({named("ImageBlkQuality", size), "memcpy of the picture", quality, copying, kForOrientation});
  }
  return pairs;
});

}  // namespace
}  // namespace kelm::bench
