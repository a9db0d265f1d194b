// SPDX-License-Identifier: Apache-2.0
// The picture of a histogram, as a file.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "image/support/buffer.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr std::size_t kPictureRows = 256;

// Bars of value 255 that stand on the bottom row of a black picture. A height is at most 255: no counter exceeds
// `largest`, and the product of the two roundings stays below 256.
void drawBars(std::uint8_t *picture, const std::uint32_t *counters, std::size_t columns) {
  const std::uint32_t largest = *std::max_element(counters, counters + columns);
  if (largest == 0) {
    return;
  }
  const float scale = 255.0F / static_cast<float>(largest);
  for (std::size_t column = 0; column < columns; ++column) {
    const auto height = static_cast<std::size_t>(static_cast<float>(counters[column]) * scale);
    for (std::size_t row = kPictureRows - height; row < kPictureRows; ++row) {
      picture[row * columns + column] = 255;
    }
  }
}

// Writes a whole file or none: an ordinary file that could not be written to its end is emptied and removed.
void writeFile(const char *path, const std::uint8_t *bytes, std::size_t size) {
  std::FILE *file = std::fopen(path, "wb");
  if (file == nullptr) {
    return;
  }
  struct stat status = {};
  fstat(fileno(file), &status);
  const bool ordinary = S_ISREG(status.st_mode);
  bool written = std::fwrite(bytes, 1, size, file) == size && std::fflush(file) == 0;
  if (!written && ordinary) {
    // The path may be a link: the file behind it must not stay half-written.
    [[maybe_unused]] const int emptied = ftruncate(fileno(file), 0);
  }
  written = std::fclose(file) == 0 && written;
  if (!written && ordinary) {
    std::remove(path);
  }
}

}  // namespace
}  // namespace kelm::image

using namespace kelm::image;

int32_t HistogramPrint(const uint32_t *counters, int16_t n, const char *path) {
  if (counters == nullptr || path == nullptr || n < 0) {
    return KELM_IMAGE_OK;
  }
  const auto columns = static_cast<std::size_t>(n);
  const std::size_t size = columns * kPictureRows;
  const Buffer<std::uint8_t> picture = allocateZeroed<std::uint8_t>(size);
  if (picture == nullptr) {
    return KELM_IMAGE_OK;
  }
  if (columns > 0) {
    drawBars(picture.get(), counters, columns);
  }
  writeFile(path, picture.get(), size);
  return KELM_IMAGE_OK;
}
