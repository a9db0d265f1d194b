// SPDX-License-Identifier: Apache-2.0
#include "tools/image/picture.h"

#include <png.h>

#include <algorithm>
#include <cctype>

namespace kelm::tools {
namespace {

class PgmReader {
 public:
  explicit PgmReader(std::span<const uint8_t> content) : bytes(content) {}

  Picture read() {
    const bool binary = bytes[1] == '5';
    const uint32_t width = number("width");
    const uint32_t height = number("height");
    largest = number("maxval");
    checkSize(width, height);
    if (largest == 0 || largest > 65535) throw PictureError("a PGM's maxval lies between 1 and 65535");
    // An ASCII sample takes two bytes or more, so that a short file is refused before memory is taken for it.
    const size_t area = size_t{width} * height;
    const size_t sampleBytes = binary && largest < 256 ? 1 : 2;
    if (binary) ++position;  // the one white space before the samples
    if (position > bytes.size() || bytes.size() - position + (binary ? 0 : 1) < area * sampleBytes) tooShort();
    Picture picture(static_cast<int>(width), static_cast<int>(height));
    if (binary && largest == 255) {
      std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(position), area, picture.samples.begin());
    } else {
      for (uint8_t &sample : picture.samples) sample = scaled(binary ? binarySample() : number("sample"));
    }
    return picture;
  }

 private:
  [[noreturn]] void tooShort() const { throw PictureError("not a sound PGM (the file ends too early)"); }

  void skipSpaceAndComments() {
    while (position < bytes.size() && (isspace(bytes[position]) || bytes[position] == '#')) {
      if (bytes[position] == '#') {
        while (position < bytes.size() && bytes[position] != '\n' && bytes[position] != '\r') ++position;
      } else {
        ++position;
      }
    }
  }

  uint32_t number(const char *what) {
    skipSpaceAndComments();
    if (position == bytes.size()) tooShort();
    uint32_t value = 0;
    const size_t start = position;
    for (; position < bytes.size() && isdigit(bytes[position]); ++position) {
      value = std::min<uint32_t>(value * 10 + (bytes[position] - '0'), 100'000'000);
    }
    if (position == start)
      throw PictureError(std::string("not a sound PGM (no number where the ") + what + " belongs)");
    return value;
  }

  uint32_t binarySample() {
    uint32_t value = 0;
    for (int i = largest < 256 ? 1 : 2; i > 0; --i) {
      if (position == bytes.size()) tooShort();
      value = value << 8 | bytes[position++];
    }
    return value;
  }

  uint8_t scaled(uint32_t value) const {
    if (value > largest) throw PictureError("not a sound PGM (a sample above the maxval)");
    return static_cast<uint8_t>((value * 255 + largest / 2) / largest);
  }

  std::span<const uint8_t> bytes;
  size_t position = 2;
  uint32_t largest = 0;
};

}  // namespace

void checkSize(uint64_t width, uint64_t height) {
  const std::string size = std::to_string(width) + " x " + std::to_string(height);
  if (width == 0 || height == 0) throw PictureError("the picture is empty (" + size + " pixels)");
  if (width > kLongestEdge || height > kLongestEdge || width * height > kLargestArea) {
    throw PictureError("the picture is too large (" + size + " pixels; at most " + std::to_string(kLongestEdge) +
                       " along an edge and " + std::to_string(kLargestArea) + " in all)");
  }
}

bool looksLikePgm(std::span<const uint8_t> bytes) {
  return bytes.size() >= 3 && bytes[0] == 'P' && (bytes[1] == '2' || bytes[1] == '5') &&
         (isspace(bytes[2]) || bytes[2] == '#');
}

Picture decodePgm(std::span<const uint8_t> bytes) { return PgmReader(bytes).read(); }

std::vector<uint8_t> encodePng(const Picture &picture) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<uint32_t>(picture.width);
  image.height = static_cast<uint32_t>(picture.height);
  image.format = PNG_FORMAT_GRAY;
  image.flags = PNG_IMAGE_FLAG_FAST;
  std::vector<uint8_t> bytes(PNG_IMAGE_PNG_SIZE_MAX(image));
  size_t length = bytes.size();
  if (!png_image_write_to_memory(&image, bytes.data(), &length, 0, picture.samples.data(), 0, nullptr)) {
    throw PictureError(std::string("a PNG could not be made (") + image.message + ")");
  }
  bytes.resize(length);
  return bytes;
}

std::vector<uint8_t> encodePgm(const Picture &picture) {
  const std::string header = "P5\n" + std::to_string(picture.width) + " " + std::to_string(picture.height) + "\n255\n";
  std::vector<uint8_t> bytes(header.begin(), header.end());
  bytes.insert(bytes.end(), picture.samples.begin(), picture.samples.end());
  return bytes;
}

bool hasExtension(const std::string &path, const std::string &extension) {
  return path.size() >= extension.size() &&
         std::equal(extension.begin(), extension.end(), path.end() - static_cast<ptrdiff_t>(extension.size()),
                    [](char a, char b) { return tolower(static_cast<unsigned char>(b)) == a; });
}

}  // namespace kelm::tools
