// SPDX-License-Identifier: Apache-2.0
// FpGetFrequency against the same job written as a plain loop, and against memcpy of the picture.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "kelmtrova/image.h"
#include "tests/support/plain/frequency.h"

namespace kelm::bench {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Scene {
  int height, width;
  Bytes pixels;
  std::vector<std::int16_t> directions;
  FingerprintBlockField field;
};

// Concentric ridges and the directions that belong to them.
std::shared_ptr<Scene> makeScene(int height, int width) {
  auto scene = std::make_shared<Scene>();
  scene->height = height;
  scene->width = width;
  scene->pixels = ridgePicture(height, width);
  const int rows = (height + 7) / 8;
  const int cols = (width + 7) / 8;
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      const double dy = ((rows - 1 - r) * 8 + 4 - height * 0.6) * 0.64;
      const double dx = c * 8 + 4 - width * 0.45;
      const int along = static_cast<int>(std::lround(std::atan2(dy, dx) * 180 / 3.141592653589793)) + 90;
      scene->directions.push_back(static_cast<std::int16_t>((along + 360) % 180));
    }
  }
  scene->field = {8, static_cast<std::uint16_t>(rows), static_cast<std::uint16_t>(cols), scene->directions.data()};
  return scene;
}

std::vector<Pair> pairs() {
  std::vector<Pair> result;
  for (const auto &[height, width] : kSizes) {
    const auto scene = makeScene(height, width);
    const auto copy = std::make_shared<Bytes>(scene->pixels.size());
    const auto ours = [scene] {
      std::uint8_t *map = nullptr;
      FpGetFrequency(scene->pixels.data(), static_cast<std::int16_t>(scene->height),
                     static_cast<std::int16_t>(scene->width), &scene->field, &map);
      std::free(map);
    };
    const std::string name = "FpGetFrequency " + std::to_string(scene->width) + " x " + std::to_string(scene->height);
    result.push_back(
        {name, "plain loop", ours,
         [scene] { plain::Frequency().run(scene->pixels.data(), scene->height, scene->width, scene->field); }, 0.125});
    result.push_back({name, "memcpy of the picture", ours,
                      [scene, copy] { std::memcpy(copy->data(), scene->pixels.data(), copy->size()); },
                      kForOrientation});
  }
  return result;
}

const Registration registration(pairs);

}  // namespace
}  // namespace kelm::bench
