// SPDX-License-Identifier: Apache-2.0
#include "tools/image/picture.h"

#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "tools/image/wsq.h"
#include "tools/output.h"

namespace kelm::tools {
namespace {

// More than the largest picture needs uncompressed, with 16 bits and four channels.
constexpr size_t kLargestFile = size_t{kLargestArea} * 8 + (1 << 20);

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

std::vector<uint8_t> readFile(const std::string &path) {
  // Standard input is left open.
  const File file(path == "-" ? fdopen(dup(STDIN_FILENO), "rb") : fopen(path.c_str(), "rb"));
  if (!file) throw PictureError(path + ": " + strerror(errno));
  std::vector<uint8_t> bytes;
  for (size_t got = 1; got > 0;) {
    const size_t before = bytes.size();
    bytes.resize(before + std::clamp<size_t>(before, 1 << 16, 1 << 23));
    got = fread(bytes.data() + before, 1, bytes.size() - before, file.get());
    bytes.resize(before + got);
    if (bytes.size() > kLargestFile) throw PictureError(path + ": the file is too large for a picture");
  }
  if (ferror(file.get())) throw PictureError(path + ": " + strerror(errno));
  return bytes;
}

void checkSize(const std::string &name, uint64_t width, uint64_t height) {
  const std::string size = std::to_string(width) + " x " + std::to_string(height);
  if (width == 0 || height == 0) throw PictureError(name + ": the picture is empty (" + size + " pixels)");
  if (width > kLongestEdge || height > kLongestEdge || width * height > kLargestArea) {
    throw PictureError(name + ": the picture is too large (" + size + " pixels; at most " +
                       std::to_string(kLongestEdge) + " along an edge and " + std::to_string(kLargestArea) +
                       " in all)");
  }
}

// ---- PNG -----------------------------------------------------------------------------------------------------------

// libpng reports errors by a jump back to setjmp. Nothing with a destructor may live between the two, so everything
// does in here.
struct PngReading {
  png_structp png = nullptr;
  png_infop info = nullptr;
  const std::vector<uint8_t> *bytes = nullptr;
  size_t position = 0;
  std::vector<uint8_t> rows;
  std::vector<png_bytep> rowPointers;
  char error[128] = "";

  ~PngReading() { png_destroy_read_struct(&png, &info, nullptr); }
};

void pngReadBytes(png_structp png, png_bytep out, size_t length) {
  auto &reading = *static_cast<PngReading *>(png_get_io_ptr(png));
  if (length > reading.bytes->size() - reading.position) png_error(png, "the file ends too early");
  memcpy(out, reading.bytes->data() + reading.position, length);
  reading.position += length;
}

[[noreturn]] void pngReadFailed(png_structp png, png_const_charp message) {
  auto &reading = *static_cast<PngReading *>(png_get_error_ptr(png));
  snprintf(reading.error, sizeof reading.error, "%s", message);
  png_longjmp(png, 1);
}

void pngIgnoreWarning(png_structp, png_const_charp) {}

bool pngReadHeader(PngReading &reading) {
  if (setjmp(png_jmpbuf(reading.png))) return false;
  png_set_read_fn(reading.png, &reading, pngReadBytes);
  // The limits are checked afterwards, with a better message; nothing is allocated for the rows by then.
  png_set_user_limits(reading.png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
  png_read_info(reading.png, reading.info);
  return true;
}

// Every kind of PNG becomes 8-bit grey with an opacity, or without one where the file has none.
bool pngReadRows(PngReading &reading) {
  if (setjmp(png_jmpbuf(reading.png))) return false;
  png_set_expand(reading.png);
  png_set_scale_16(reading.png);
  if (png_get_color_type(reading.png, reading.info) & PNG_COLOR_MASK_COLOR) {
    png_set_rgb_to_gray(reading.png, PNG_ERROR_ACTION_NONE, PNG_RGB_TO_GRAY_DEFAULT, PNG_RGB_TO_GRAY_DEFAULT);
  }
  png_set_interlace_handling(reading.png);
  png_read_update_info(reading.png, reading.info);
  const size_t stride = png_get_rowbytes(reading.png, reading.info);
  const size_t height = png_get_image_height(reading.png, reading.info);
  reading.rows.resize(stride * height);
  reading.rowPointers.resize(height);
  for (size_t y = 0; y < height; ++y) reading.rowPointers[y] = reading.rows.data() + y * stride;
  png_read_image(reading.png, reading.rowPointers.data());
  png_read_end(reading.png, nullptr);
  return true;
}

Picture decodePng(const std::vector<uint8_t> &bytes, const std::string &name) {
  PngReading reading;
  reading.bytes = &bytes;
  reading.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &reading, pngReadFailed, pngIgnoreWarning);
  if (reading.png) reading.info = png_create_info_struct(reading.png);
  if (!reading.info) throw std::bad_alloc();
  if (!pngReadHeader(reading)) throw PictureError(name + ": not a sound PNG (" + reading.error + ")");
  const uint32_t width = png_get_image_width(reading.png, reading.info);
  const uint32_t height = png_get_image_height(reading.png, reading.info);
  checkSize(name, width, height);
  if (!pngReadRows(reading)) throw PictureError(name + ": not a sound PNG (" + reading.error + ")");

  Picture picture(static_cast<int>(width), static_cast<int>(height));
  if (png_get_channels(reading.png, reading.info) == 1) {
    picture.samples = std::move(reading.rows);
    return picture;
  }
  for (size_t i = 0; i < picture.samples.size(); ++i) {
    const int grey = reading.rows[2 * i];
    const int opacity = reading.rows[2 * i + 1];
    picture.samples[i] = static_cast<uint8_t>((grey * opacity + 255 * (255 - opacity) + 127) / 255);
  }
  return picture;
}

// ---- PGM -----------------------------------------------------------------------------------------------------------

class PgmReader {
 public:
  PgmReader(const std::vector<uint8_t> &content, const std::string &picture) : bytes(content), name(picture) {}

  Picture read() {
    const bool binary = bytes[1] == '5';
    const uint32_t width = number("width");
    const uint32_t height = number("height");
    largest = number("maxval");
    checkSize(name, width, height);
    if (largest == 0 || largest > 65535) throw PictureError(name + ": a PGM's maxval lies between 1 and 65535");
    // An ASCII sample takes two bytes or more, so that a short file is refused before memory is taken for it.
    const size_t area = size_t{width} * height;
    const size_t sampleBytes = binary && largest < 256 ? 1 : 2;
    if (binary) ++position;  // the one white space before the samples
    if (position > bytes.size() || bytes.size() - position + 1 < area * sampleBytes) tooShort();
    Picture picture(static_cast<int>(width), static_cast<int>(height));
    for (uint8_t &sample : picture.samples) sample = scaled(binary ? binarySample() : number("sample"));
    return picture;
  }

 private:
  [[noreturn]] void tooShort() const { throw PictureError(name + ": not a sound PGM (the file ends too early)"); }

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
    if (position == start) throw PictureError(name + ": not a sound PGM (no number where the " + what + " belongs)");
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
    if (value > largest) throw PictureError(name + ": not a sound PGM (a sample above the maxval)");
    return static_cast<uint8_t>((value * 255 + largest / 2) / largest);
  }

  const std::vector<uint8_t> &bytes;
  const std::string &name;
  size_t position = 2;
  uint32_t largest = 0;
};

Picture pictureOfWsq(const std::vector<uint8_t> &bytes, const std::string &name) {
  try {
    WsqPicture decoded = decodeWsq(bytes, kLongestEdge, kLargestArea);
    Picture picture;
    picture.width = decoded.width;
    picture.height = decoded.height;
    picture.samples = std::move(decoded.samples);
    return picture;
  } catch (const WsqError &error) {
    throw PictureError(name + ": the WSQ picture cannot be read: " + error.what());
  }
}

}  // namespace

Picture decodePicture(const std::vector<uint8_t> &bytes, const std::string &name) {
  if (bytes.size() >= 8 && png_sig_cmp(bytes.data(), 0, 8) == 0) return decodePng(bytes, name);
  if (bytes.size() >= 3 && bytes[0] == 'P' && (bytes[1] == '2' || bytes[1] == '5') &&
      (isspace(bytes[2]) || bytes[2] == '#')) {
    return PgmReader(bytes, name).read();
  }
  if (looksLikeWsq(bytes)) return pictureOfWsq(bytes, name);
  throw PictureError(name + (bytes.empty() ? ": the file is empty" : ": not a PNG, WSQ or PGM (P2 or P5) picture"));
}

Picture readPicture(const std::string &path) { return decodePicture(readFile(path), path); }

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
