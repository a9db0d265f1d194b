// SPDX-License-Identifier: Apache-2.0
#include "tools/image/foreign.h"

#include <leptonica/allheaders.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "tools/image/png_filter.h"

namespace kelm::tools {
namespace {

struct PixDestroyer {
  void operator()(Pix *pix) const { pixDestroy(&pix); }
};
using OwnedPix = std::unique_ptr<Pix, PixDestroyer>;

struct Signature {
  size_t offset;
  std::string_view bytes;
  const char *name;
};

using namespace std::string_view_literals;

// What people might try, by the bytes that it begins with.
constexpr Signature kNotRead[] = {
    {0, "%PDF"sv, "a PDF"},
    {0, "%!PS"sv, "PostScript"},
    {0, "<svg"sv, "an SVG drawing"},
    {0, "<?xml"sv, "XML"},
    {4, "ftypheic"sv, "a HEIC picture"},
    {4, "ftypmif1"sv, "a HEIF picture"},
    {4, "ftypavif"sv, "an AVIF picture"},
    {0, "\xff\x0a"sv, "a JPEG XL picture"},
    {0, "\0\0\0\x0cJXL "sv, "a JPEG XL picture"},
    {0, "8BPS"sv, "a Photoshop file"},
    {0, "FIR\0"sv, "an ISO/IEC 19794-4 finger image record"},
    {0, "FMR\0"sv, "an ISO/IEC 19794-2 minutiae record"},
    {128, "DICM"sv, "a DICOM file"},
    {0, "\x1f\x8b"sv, "a gzip archive"},
    {0, "PK\x03\x04"sv, "a ZIP archive"},
    {0, "\x93NUMPY"sv, "an array of numpy"},
    {0, "P7"sv, "a PAM picture"},
};

const char *nameOf(int format) {
  switch (format) {
    case IFF_BMP:
      return "BMP";
    case IFF_JFIF_JPEG:
      return "JPEG";
    case IFF_PNG:
      return "PNG";
    case IFF_PNM:
      return "PNM";
    case IFF_GIF:
      return "GIF";
    case IFF_JP2:
      return "JPEG 2000 picture";
    case IFF_WEBP:
      return "WebP";
    default:
      return format >= IFF_TIFF && format <= IFF_TIFF_ZIP ? "TIFF" : format == IFF_TIFF_JPEG ? "TIFF" : nullptr;
  }
}

[[noreturn]] void refuse(std::span<const uint8_t> bytes) {
  if (bytes.empty()) throw PictureError("the file is empty");
  const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  for (const Signature &signature : kNotRead) {
    if (text.size() > signature.offset && text.substr(signature.offset).starts_with(signature.bytes)) {
      throw PictureError(std::string("this is ") + signature.name + ", which is not read");
    }
  }
  throw PictureError("not a picture in a format that is known here");
}

uint8_t luminance(int red, int green, int blue) {
  return static_cast<uint8_t>((2126 * red + 7152 * green + 722 * blue + 5000) / 10000);  // of BT.709
}

// Each pixel of 32 bits, over white paper where the picture has opacity.
void fromColours(Pix *pix, Picture &picture) {
  const bool opacity = pixGetSpp(pix) == 4;
  for (int y = 0; y < picture.height; ++y) {
    const l_uint32 *line = pixGetData(pix) + static_cast<ptrdiff_t>(y) * pixGetWpl(pix);
    for (int x = 0; x < picture.width; ++x) {
      l_int32 red, green, blue, alpha;
      extractRGBAValues(line[x], &red, &green, &blue, &alpha);
      const int grey = luminance(red, green, blue);
      picture.at(x, y) = static_cast<uint8_t>(opacity ? (grey * alpha + 255 * (255 - alpha) + 127) / 255 : grey);
    }
  }
}

void fromGreys(Pix *pix, Picture &picture) {
  const bool wide = pixGetDepth(pix) == 16;
  for (int y = 0; y < picture.height; ++y) {
    const l_uint32 *line = pixGetData(pix) + static_cast<ptrdiff_t>(y) * pixGetWpl(pix);
    for (int x = 0; x < picture.width; ++x) {
      const int value = wide ? (GET_DATA_TWO_BYTES(line, x) * 255 + 32767) / 65535 : GET_DATA_BYTE(line, x);
      picture.at(x, y) = static_cast<uint8_t>(value);
    }
  }
}

// A picture of 8, 16 or 32 bits for a pixel, without a palette.
OwnedPix plain(Pix *pix) {
  if (PIXCMAP *palette = pixGetColormap(pix)) {
    l_int32 opaque = 1;
    pixcmapIsOpaque(palette, &opaque);
    return OwnedPix(pixRemoveColormap(pix, opaque ? REMOVE_CMAP_TO_FULL_COLOR : REMOVE_CMAP_WITH_ALPHA));
  }
  switch (pixGetDepth(pix)) {
    case 16:
    case 32:
      return OwnedPix(pixClone(pix));
    case 24:
      return OwnedPix(pixConvert24To32(pix));
    default:
      return OwnedPix(pixConvertTo8(pix, 0));
  }
}

Picture pictureOf(Pix *pix) {
  constexpr int kLeast = 50, kMost = 20000;  // pixels per inch that can be meant
  Picture picture(pixGetWidth(pix), pixGetHeight(pix));
  const int resolution = pixGetXRes(pix);
  picture.resolution = resolution >= kLeast && resolution <= kMost ? resolution : 0;
  const OwnedPix read = plain(pix);
  if (!read) throw std::bad_alloc();
  pixGetDepth(read.get()) == 32 ? fromColours(read.get(), picture) : fromGreys(read.get(), picture);
  return picture;
}

}  // namespace

Picture decodeForeign(std::span<const uint8_t> bytes) {
  std::vector<uint8_t> kept;
  if (looksLikePng(bytes)) bytes = kept = essentialPng(bytes);
  l_int32 format = IFF_UNKNOWN;
  std::array<uint8_t, 16> start{};
  std::copy_n(bytes.begin(), std::min(bytes.size(), start.size()), start.begin());
  setMsgSeverity(L_SEVERITY_NONE);
  findFileFormatBuffer(start.data(), &format);
  const char *name = nameOf(format);
  if (!name) refuse(bytes);
  l_int32 width = 0, height = 0, bits = 0, samples = 0, palette = 0;
  const bool sound =
      pixReadHeaderMem(bytes.data(), bytes.size(), &format, &width, &height, &bits, &samples, &palette) == 0;
  if (sound) checkSize(static_cast<uint32_t>(std::max(width, 0)), static_cast<uint32_t>(std::max(height, 0)));
  const OwnedPix pix(sound ? pixReadMem(bytes.data(), bytes.size()) : nullptr);
  if (!pix) throw PictureError(std::string("not a sound ") + name + ", or of a kind that is not read");
  checkSize(static_cast<uint32_t>(pixGetWidth(pix.get())), static_cast<uint32_t>(pixGetHeight(pix.get())));
  return pictureOf(pix.get());
}

}  // namespace kelm::tools
