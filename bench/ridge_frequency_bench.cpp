// FpGetFrequency against the same job written as a plain loop, and against memcpy of the picture.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/bench.h"
#include "kelmtrova/image.h"

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

class PlainLoop {
 public:
  PlainLoop() {
    for (int d = 0; d <= 180; ++d) {
      const double angle = static_cast<float>(d * 3.141592653589793 / 180.0);
      cosine_[d] = static_cast<std::int16_t>(256.0 * std::cos(angle));
      sine_[d] = static_cast<std::int16_t>(256.0 * std::sin(angle));
    }
  }

  Bytes run(const Scene &scene) {
    const int cellRows = scene.height / 4;
    const int cellCols = scene.width / 4;
    Bytes map(static_cast<std::size_t>(cellRows * cellCols), 255);
    for (int cy = 0; cy < cellRows; ++cy) {
      for (int cx = 0; cx < cellCols; ++cx) {
        const FingerprintBlockField &field = scene.field;
        const int bx = std::min<int>(cx / 2, field.cols - 1);
        const int by = std::min<int>(cy / 2, field.rows - 1);
        int direction = field.data[bx + field.cols * (field.rows - 1 - by)];
        direction += direction < 0 ? 180 : 0;
        sample(scene, cx * 4, cy * 4, cosine_[direction], sine_[direction]);
        const int value = period();
        if (value >= 0) {
          map[static_cast<std::size_t>(cy * cellCols + cx)] = static_cast<std::uint8_t>(std::min(value, 255));
        }
      }
    }
    return map;
  }

 private:
  void sample(const Scene &scene, int x, int y, int c, int s) {
    for (int k = -16; k <= 16; ++k) {
      const int px = x - ((k * s) >> 8);
      const int py = y + ((k * c) >> 8);
      int sum = 0;
      int count = 0;
      const auto add = [&](int column, int row) {
        if (column >= 0 && column < scene.width && row >= 0 && row < scene.height) {
          sum += scene.pixels[static_cast<std::size_t>(row * scene.width + column)];
          ++count;
        }
      };
      add(px, py);
      for (int j = 1; j <= 2; ++j) {
        const int u = (j * c) >> 8;
        const int v = (j * s) >> 8;
        add(px + u, py + v);
        add(px - u, py - v);
      }
      if (count > 0) {
        profile_[k + 16] = static_cast<std::uint8_t>(sum / count);
      }
    }
  }

  int period() {
    int peaks[33], valleys[33];
    int peakCount = 0, valleyCount = 0;
    int peakStart = -1, peakEnd = -1, valleyStart = -1, valleyEnd = -1;
    const std::uint8_t *p = profile_;
    for (int i = 1; i <= 31; ++i) {
      if (p[i - 1] < p[i] && p[i] >= p[i + 1]) peakStart = i;
      if (p[i - 1] <= p[i] && p[i] > p[i + 1]) peakEnd = i;
      if (peakStart >= 0 && peakEnd >= peakStart) {
        peaks[peakCount++] = (peakStart + peakEnd) / 2;
        peakStart = peakEnd = -1;
      }
      if (p[i - 1] > p[i] && p[i] <= p[i + 1]) valleyStart = i;
      if (p[i - 1] >= p[i] && p[i] < p[i + 1]) valleyEnd = i;
      if (valleyStart >= 0 && valleyEnd >= valleyStart) {
        valleys[valleyCount++] = (valleyStart + valleyEnd) / 2;
        valleyStart = valleyEnd = -1;
      }
    }
    if (peakCount > 2 || valleyCount > 2) {
      return peakCount > 2 ? commonGap(peaks, peakCount) : commonGap(valleys, valleyCount);
    }
    if (peakCount == 2 && valleyCount == 2) {
      const int span = peaks[0] > valleys[0] ? peaks[1] - valleys[0] : valleys[1] - peaks[0];
      return 2 * ((8 * span) / 3);
    }
    return -1;
  }

  static int commonGap(const int *list, int count) {
    std::uint8_t gaps[100] = {};
    for (int i = 1; i < count; ++i) {
      ++gaps[list[i] - list[i - 1]];
    }
    int best = 0;
    int common = 0;
    for (int d = 2; d <= 49; ++d) {
      const int sum = static_cast<std::uint8_t>(gaps[d - 1] + gaps[d] + gaps[d + 1]);
      if (sum >= best) {
        best = sum;
        common = d;
      }
    }
    return 8 * common;
  }

  std::int16_t cosine_[181], sine_[181];
  std::uint8_t profile_[33] = {};
};

void checkSame(const Scene &scene) {
  std::uint8_t *map = nullptr;
  FpGetFrequency(scene.pixels.data(), static_cast<std::int16_t>(scene.height), static_cast<std::int16_t>(scene.width),
                 &scene.field, &map);
  const Bytes plain = PlainLoop().run(scene);
  if (map == nullptr || std::memcmp(map, plain.data(), plain.size()) != 0) {
    std::abort();
  }
  std::free(map);
}

std::vector<Pair> pairs() {
  std::vector<Pair> result;
  for (const auto &[height, width] : {std::pair{360, 256}, std::pair{1024, 1024}}) {
    const auto scene = makeScene(height, width);
    checkSame(*scene);
    const auto copy = std::make_shared<Bytes>(scene->pixels.size());
    const auto ours = [scene] {
      std::uint8_t *map = nullptr;
      FpGetFrequency(scene->pixels.data(), static_cast<std::int16_t>(scene->height),
                     static_cast<std::int16_t>(scene->width), &scene->field, &map);
      std::free(map);
    };
    const std::string name = "FpGetFrequency " + std::to_string(scene->width) + " x " + std::to_string(scene->height);
    result.push_back({name, "plain loop", ours, [scene] { PlainLoop().run(*scene); }, 0.125});
    result.push_back({name + " (for information)", "memcpy", ours,
                      [scene, copy] { std::memcpy(copy->data(), scene->pixels.data(), copy->size()); }, 1e9});
  }
  return result;
}

const Registration registration(pairs);

}  // namespace
}  // namespace kelm::bench
