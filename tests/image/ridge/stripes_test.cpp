// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace {

using namespace kelm::test;
using Picture = Bytes;

// One line of samples `step` apart.
void plainStrip(std::uint8_t *line, int samples, int step, int value, int fill, int longest) {
  for (int i = 0; i < samples;) {
    int end = i;
    for (; end < samples && line[end * step] == value; ++end) {
    }
    for (int k = i; end - i <= longest && k < end; ++k) {
      line[k * step] = static_cast<std::uint8_t>(fill);
    }
    i = std::max(end, i + 1);
  }
}

TEST(RemoveStripe, EqualsWalkingEveryLine) {
  Random random(4);
  for (int round = 0; round < 420; ++round) {
    // The last rounds are long lines, with runs about as long as the longest that can be named.
    const bool large = round >= 400;
    const int length = large ? 900 + random(3000) : 1 + round % 200;
    const int other = 1 + random(large ? 3 : 140);
    const bool down = random(2) == 1;
    const int h = down ? length : other;
    const int w = down ? other : length;
    const int longest = std::array{1, 2, 3, 7, 8, 63, 64, 65, 127, 128, 129, 200, 254, 255, 0}[random() % 15];
    const int mean = 1 + random(2 * longest + 2);
    Picture expected(static_cast<std::size_t>(h * w));
    for (int i = 0, sample = 0; i < h * w; ++i) {
      sample = random(mean) == 0 ? 255 - sample : sample;
      expected[static_cast<std::size_t>(down ? i % h * w + i / h : i)] = static_cast<std::uint8_t>(sample);
    }
    const int value = 255 * random(2);
    const int fill = std::array{0, 255, 100}[random() % 3];
    const Guarded<std::uint8_t> image(expected, guardOf(round));
    for (int line = 0; line < other; ++line) {
      plainStrip(expected.data() + (down ? line : line * w), length, down ? w : 1, value, fill, longest);
    }
    ASSERT_EQ(call(RemoveStripe, image.data(), h, w, value, fill, longest, down), 0);
    ASSERT_TRUE(same(image.data(), expected)) << h << " x " << w << " longest " << longest << (down ? " down" : "");
  }
}

TEST(RemoveStripe, WorkedExamplesAndRefusals) {
  const Picture row = {0, 255, 255, 0, 255, 255, 255, 0};
  Picture image = row;
  EXPECT_EQ(RemoveStripe(image.data(), 1, 8, 255, 0, 2, 2), 0);
  EXPECT_EQ(RemoveStripe(image.data(), 1, 8, 255, 0, 0, 0), 0);
  EXPECT_EQ(image, row);
  EXPECT_EQ(RemoveStripe(nullptr, 1, 8, 255, 0, 2, 0), 2);
  EXPECT_EQ(RemoveStripe(image.data(), 0, 8, 255, 0, 2, 0), 2);
  EXPECT_EQ(RemoveStripe(image.data(), 1, 8, 255, 0, 2, 0), 0);
  EXPECT_EQ(image, (Picture{0, 0, 0, 0, 255, 255, 255, 0}));
}

}  // namespace
