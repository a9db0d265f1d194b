// SPDX-License-Identifier: Apache-2.0
#include "tools/image/wsq.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace kelm::tools {

namespace {

enum Marker : uint16_t {
  kStartOfImage = 0xFFA0,
  kEndOfImage = 0xFFA1,
  kStartOfFrame = 0xFFA2,
  kStartOfBlock = 0xFFA3,
  kTransformTable = 0xFFA4,
  kQuantizationTable = 0xFFA5,
  kHuffmanTables = 0xFFA6,
  kRestartInterval = 0xFFA7,
  kComment = 0xFFA8,
};

constexpr int kSubbands = 64;
constexpr int kCodeLengths = 16;
constexpr int kTables = 8;
constexpr size_t kLongestFilter = 31;  // taps; the bureau's own filters have 9 and 7

void require(bool holds, const char *otherwise) {
  if (!holds) throw WsqError(otherwise);
}

// Big-endian numbers of one segment, one after the other.
class Reader {
 public:
  explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  size_t left() const { return bytes_.size(); }
  std::span<const uint8_t> rest() const { return bytes_; }
  std::span<const uint8_t> take(size_t count) {
    require(count <= bytes_.size(), "it ends in the middle");
    const auto taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
  }
  uint32_t number(size_t bytes) {
    uint32_t value = 0;
    for (const uint8_t byte : take(bytes)) value = value << 8 | byte;
    return value;
  }
  // A number of that many bytes after the power of ten that divides it.
  float scaled(size_t bytes) {
    const auto exponent = static_cast<int>(number(1));
    return static_cast<float>(number(bytes) * std::pow(10.0, -exponent));
  }

 private:
  std::span<const uint8_t> bytes_;
};

// ---- Tables ---------------------------------------------------------------------------------------------------------

// Synthesis filters, the halves from the centre outwards: of symmetric filters of odd length.
struct Filters {
  std::vector<float> low, high;
};

struct Quantization {
  float binCentre = 0;
  std::array<float, kSubbands> bin{};      // width of the bins; 0: the subband is not coded
  std::array<float, kSubbands> zeroBin{};  // width of the bin about 0
};

// Canonical Huffman codes: for each length the first code, the first place in `values`, and how many there are.
struct Huffman {
  std::array<uint16_t, kCodeLengths> first{}, place{}, count{};
  std::vector<uint8_t> values;
};

struct Frame {
  int width = 0, height = 0;
  float shift = 0, scale = 0;  // a grey level is the reconstructed value times scale plus shift
};

std::vector<float> readHalfFilter(Reader &segment, size_t taps) {
  std::vector<float> half(taps / 2 + 1);
  float sign = 1;  // the synthesis filter is the other analysis filter with every second sign changed
  for (float &coefficient : half) {
    const bool negative = segment.number(1) != 0;
    const float magnitude = segment.scaled(4);
    coefficient = sign * (negative ? -magnitude : magnitude);
    sign = -sign;
  }
  return half;
}

Filters readFilters(Reader segment) {
  const size_t lowTaps = segment.number(1);
  const size_t highTaps = segment.number(1);
  require(lowTaps % 2 == 1 && highTaps % 2 == 1, "it uses transform filters of even length");
  require(std::max(lowTaps, highTaps) <= kLongestFilter, "its transform filters are too long");
  Filters filters;
  filters.high = readHalfFilter(segment, lowTaps);
  filters.low = readHalfFilter(segment, highTaps);
  return filters;
}

Quantization readQuantization(Reader segment) {
  Quantization table;
  table.binCentre = segment.scaled(2);
  for (size_t band = 0; band < kSubbands; ++band) {
    table.bin[band] = segment.scaled(2);
    table.zeroBin[band] = segment.scaled(2);
  }
  return table;
}

Huffman readHuffman(Reader &segment) {
  Huffman table;
  const auto counts = segment.take(kCodeLengths);
  uint32_t code = 0;
  size_t place = 0;
  for (size_t length = 0; length < kCodeLengths; ++length) {
    table.first[length] = static_cast<uint16_t>(code);
    table.place[length] = static_cast<uint16_t>(place);
    table.count[length] = counts[length];
    place += counts[length];
    code += counts[length];
    require(code <= 2U << length, "its Huffman codes are impossible");
    code <<= 1;
  }
  const auto values = segment.take(place);
  table.values.assign(values.begin(), values.end());
  return table;
}

Frame readFrame(Reader segment, int longestEdge, size_t largestArea) {
  Frame frame;
  segment.take(2);  // grey levels of black and white
  const uint32_t height = segment.number(2);
  const uint32_t width = segment.number(2);
  const auto longest = static_cast<uint32_t>(longestEdge);
  require(width > 0 && height > 0, "it has no pixels");
  require(width <= longest && height <= longest && size_t{width} * height <= largestArea, "it is too large");
  frame.width = static_cast<int>(width);
  frame.height = static_cast<int>(height);
  frame.shift = segment.scaled(2);
  frame.scale = segment.scaled(2);
  return frame;
}

int readResolution(std::span<const uint8_t> comment) {
  const std::string text(comment.begin(), comment.end());
  constexpr std::string_view kKey = "\nPPI ";
  const size_t at = text.starts_with("NIST_COM") ? text.find(kKey) : std::string::npos;
  int pixels = 0;
  if (at != std::string::npos) {
    std::from_chars(text.data() + at + kKey.size(), text.data() + text.size(), pixels);
  }
  return pixels >= 0 ? pixels : 0;
}

// ---- The tree of subbands -------------------------------------------------------------------------------------------

// One direction of a region of the transform. In a mirrored one, which is the upper half of another region's
// frequencies, high frequencies come first.
struct Side {
  int start = 0, length = 0;
  bool mirrored = false;

  int lowLength() const { return (length + 1) / 2; }
  int highLength() const { return length / 2; }
  int firstLength() const { return mirrored ? highLength() : lowLength(); }
  Side half(bool second) const {
    const int first = firstLength();
    return second ? Side{start + first, length - first, true} : Side{start, first, false};
  }
};

struct Region {
  Side x, y;
};

// How regions are split, each (s) into upper left, upper right, lower left, lower right, down to subbands (.) in the
// order of their numbers.
constexpr std::string_view kTree =
    "s"                             // the picture
    "s"                             // its upper left
    "sss....... s.... s.... s...."  // subbands 0 to 18
    "s s.... s.... s.... s...."     // 19 to 34
    "s s.... s.... s.... s...."     // 35 to 50
    "."                             // 51
    "s.... s.... s....";            // 52 to 63

struct Tree {
  std::vector<Region> splits;  // parents before their children
  std::vector<Region> subbands;
};

void grow(Tree &tree, std::string_view &shape, const Region &region) {
  while (shape.front() == ' ') shape.remove_prefix(1);
  const bool split = shape.front() == 's';
  shape.remove_prefix(1);
  (split ? tree.splits : tree.subbands).push_back(region);
  for (int quarter = 0; split && quarter < 4; ++quarter) {
    grow(tree, shape, {region.x.half(quarter % 2 != 0), region.y.half(quarter / 2 != 0)});
  }
}

Tree treeOf(const Frame &frame) {
  Tree tree;
  std::string_view shape = kTree;
  grow(tree, shape, {{0, frame.width, false}, {0, frame.height, false}});
  return tree;
}

// ---- Coefficients ---------------------------------------------------------------------------------------------------

// Places for the coefficients in the plane, subband after subband, row after row.
class Coefficients {
 public:
  Coefficients(const Frame &frame, const Tree &tree, const Quantization &table)
      : plane(static_cast<size_t>(frame.width) * static_cast<size_t>(frame.height)),
        width_(static_cast<size_t>(frame.width)),
        tree_(tree),
        table_(table) {
    settle();
  }

  bool complete() const { return band_ == kSubbands; }

  void add(int quantized) {
    require(!complete(), "it has more coefficients than places");
    plane[row_ * width_ + column_] = value(quantized);
    advance(1);
  }

  void skip(size_t zeros) {
    while (zeros > 0) {
      require(!complete(), "it has more coefficients than places");
      const size_t here = std::min(zeros, end(tree_.subbands[band_].x) - column_);
      advance(here);
      zeros -= here;
    }
  }

  std::vector<float> plane;

 private:
  static size_t begin(const Side &side) { return static_cast<size_t>(side.start); }
  static size_t end(const Side &side) { return static_cast<size_t>(side.start + side.length); }

  float value(int quantized) const {
    const float half = table_.zeroBin[band_] / 2;
    const auto number = static_cast<float>(quantized);
    if (quantized > 0) return table_.bin[band_] * (number - table_.binCentre) + half;
    if (quantized < 0) return table_.bin[band_] * (number + table_.binCentre) - half;
    return 0;
  }

  // Goes on within the row.
  void advance(size_t columns) {
    column_ += columns;
    const Region &region = tree_.subbands[band_];
    if (column_ < end(region.x)) return;
    column_ = begin(region.x);
    if (++row_ < end(region.y)) return;
    ++band_;
    settle();
  }

  // Passes subbands that are not coded or have no places.
  void settle() {
    for (; band_ < kSubbands; ++band_) {
      const Region &region = tree_.subbands[band_];
      if (table_.bin[band_] == 0 || region.x.length == 0 || region.y.length == 0) continue;
      column_ = begin(region.x);
      row_ = begin(region.y);
      return;
    }
  }

  size_t width_;
  const Tree &tree_;
  const Quantization &table_;
  size_t band_ = 0, row_ = 0, column_ = 0;
};

// The bits of one block: a 0xFF among them is followed by a 0, and a marker ends them.
class Bits {
 public:
  explicit Bits(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  std::optional<uint32_t> bit() {
    if (left_ == 0) {
      if (next_ >= bytes_.size() || (bytes_[next_] == 0xFF && !stuffed())) return std::nullopt;
      current_ = bytes_[next_];
      next_ += current_ == 0xFF ? 2 : 1;
      left_ = 8;
    }
    return current_ >> --left_ & 1U;
  }

  int number(int bits) {
    int value = 0;
    while (bits-- > 0) {
      const auto next = bit();
      require(next.has_value(), "its coefficients end in the middle");
      value = value << 1 | static_cast<int>(*next);
    }
    return value;
  }

  // Bytes used, whole ones.
  size_t used() const { return next_; }

 private:
  bool stuffed() const { return next_ + 1 < bytes_.size() && bytes_[next_ + 1] == 0; }

  std::span<const uint8_t> bytes_;
  size_t next_ = 0;
  uint32_t current_ = 0;
  int left_ = 0;
};

// The next symbol; none at the end of the block, whose last byte is filled up with ones: no code consists of ones only.
std::optional<uint8_t> nextSymbol(Bits &bits, const Huffman &table) {
  uint32_t code = 0;
  for (size_t length = 0; length < kCodeLengths; ++length) {
    const auto bit = bits.bit();
    if (!bit) {
      require(code == (1U << length) - 1, "its coefficients end in the middle");
      return std::nullopt;
    }
    code = code << 1 | *bit;
    const uint32_t index = code - table.first[length];
    if (code >= table.first[length] && index < table.count[length]) return table.values[table.place[length] + index];
  }
  throw WsqError("it has a code that its Huffman table lacks");
}

void readCoefficients(Bits &bits, const Huffman &table, Coefficients &to) {
  constexpr int kZeroLevel = 180;  // symbols 107 to 254 are coefficients of -73 to 74
  while (const auto symbol = nextSymbol(bits, table)) {
    switch (*symbol) {
      case 0:
      case 255:
        throw WsqError("it has a symbol without a meaning");
      case 101:
        to.add(bits.number(8));
        break;
      case 102:
        to.add(-bits.number(8));
        break;
      case 103:
        to.add(bits.number(16));
        break;
      case 104:
        to.add(-bits.number(16));
        break;
      case 105:
        to.skip(static_cast<size_t>(bits.number(8)));
        break;
      case 106:
        to.skip(static_cast<size_t>(bits.number(16)));
        break;
      default:
        if (*symbol <= 100) {
          to.skip(*symbol);
        } else {
          to.add(*symbol - kZeroLevel);
        }
    }
  }
}

// ---- The inverse transform ------------------------------------------------------------------------------------------

constexpr size_t kReach = kLongestFilter / 2;
constexpr size_t kLanes = 16;  // lines that are joined together

using Lanes = std::array<float, kLanes>;

// Where sample `index` of a line lies that is continued beyond its ends by reflection.
int reflected(int index, int length) {
  const int period = 2 * (length - 1);
  index = period == 0 ? 0 : (index % period + period) % period;
  return index < length ? index : period - index;
}

// Joins the low and the high half of up to kLanes neighbouring lines. `along` is the step from one sample to the next,
// `across` from one line to the next.
void joinLines(float *lines, size_t along, size_t across, size_t count, const Side &side, const Filters &filters,
               std::vector<Lanes> &work) {
  const int length = side.length;
  const int low = side.mirrored ? side.highLength() : 0;
  const int high = side.mirrored ? 0 : side.lowLength();
  const int reach = static_cast<int>(std::max(filters.low.size(), filters.high.size())) - 1;
  Lanes *const samples = work.data() + kReach;
  for (int i = 0; i < length; ++i) {
    const float *from = lines + static_cast<size_t>((i % 2 == 0 ? low : high) + i / 2) * along;
    for (size_t lane = 0; lane < count; ++lane) samples[i][lane] = from[lane * across];
  }
  for (int i = 1; i <= reach; ++i) {
    // A line of one sample has no high half.
    samples[-i] = length == 1 && i % 2 == 1 ? Lanes{} : samples[reflected(-i, length)];
    samples[length - 1 + i] = length == 1 && i % 2 == 1 ? Lanes{} : samples[reflected(length - 1 + i, length)];
  }
  const auto tap = [](const std::vector<float> &filter, size_t k) { return k < filter.size() ? filter[k] : 0.0F; };
  for (int i = 0; i < length; ++i) {
    Lanes sum{};
    for (int k = -reach; k <= reach; ++k) {
      const bool fromLow = (i + k) % 2 == 0;
      const float weight = tap(fromLow ? filters.low : filters.high, static_cast<size_t>(std::abs(k)));
      for (size_t lane = 0; lane < kLanes; ++lane) sum[lane] += weight * samples[i + k][lane];
    }
    float *to = lines + static_cast<size_t>(i) * along;
    for (size_t lane = 0; lane < count; ++lane) to[lane * across] = sum[lane];
  }
}

void join(std::vector<float> &plane, size_t width, const Region &region, const Filters &filters,
          std::vector<Lanes> &work) {
  float *const corner =
      plane.data() + static_cast<size_t>(region.y.start) * width + static_cast<size_t>(region.x.start);
  const auto columns = static_cast<size_t>(region.x.length);
  const auto rows = static_cast<size_t>(region.y.length);
  for (size_t x = 0; x < columns; x += kLanes) {
    joinLines(corner + x, width, 1, std::min(kLanes, columns - x), region.y, filters, work);
  }
  for (size_t y = 0; y < rows; y += kLanes) {
    joinLines(corner + y * width, 1, width, std::min(kLanes, rows - y), region.x, filters, work);
  }
}

std::vector<uint8_t> greyLevels(const std::vector<float> &plane, const Frame &frame) {
  std::vector<uint8_t> samples(plane.size());
  std::transform(plane.begin(), plane.end(), samples.begin(), [&](float value) {
    const float level = value * frame.scale + frame.shift + 0.5F;
    return level > 0 ? static_cast<uint8_t>(std::min(level, 255.0F)) : uint8_t{0};  // not a number is black
  });
  return samples;
}

// ---- The whole ------------------------------------------------------------------------------------------------------

struct Decoder {
  int longestEdge = 0;
  size_t largestArea = 0;
  std::optional<Frame> frame;
  std::optional<Filters> filters;
  std::optional<Quantization> quantization;
  std::array<std::optional<Huffman>, kTables> huffman;
  Tree tree;
  std::optional<Coefficients> coefficients;
  int pixelsPerInch = 0;

  void readBlock(Reader &file, Reader segment) {
    const uint32_t number = segment.number(1);
    require(number < kTables && huffman[number], "a Huffman table is missing");
    if (!coefficients) {
      require(frame.has_value(), "its frame is missing");
      require(quantization.has_value(), "its quantization table is missing");
      tree = treeOf(*frame);
      coefficients.emplace(*frame, tree, *quantization);
    }
    Bits bits(file.rest());
    readCoefficients(bits, *huffman[number], *coefficients);
    file.take(bits.used());
  }

  void readSegment(uint32_t marker, Reader &file) {
    const uint32_t length = file.number(2);
    require(length >= 2, "a segment of it has an impossible length");
    Reader segment(file.take(length - 2));
    const bool early = !coefficients;
    switch (marker) {
      case kStartOfFrame:
        require(!frame, "it has two frames");
        frame = readFrame(segment, longestEdge, largestArea);
        break;
      case kTransformTable:
        filters = readFilters(segment);
        break;
      case kQuantizationTable:
        require(early, "its quantization changes on the way");
        quantization = readQuantization(segment);
        break;
      case kHuffmanTables:
        while (segment.left() > 0) {
          const uint32_t number = segment.number(1);
          require(number < kTables, "a Huffman table of it has an impossible number");
          huffman[number] = readHuffman(segment);
        }
        break;
      case kComment:
        pixelsPerInch = std::max(pixelsPerInch, readResolution(segment.rest()));
        break;
      case kStartOfBlock:
        readBlock(file, segment);
        break;
      case kRestartInterval:
        throw WsqError("it uses restart intervals");
      default:
        throw WsqError("it has a segment without a meaning");
    }
  }

  WsqPicture finish() {
    require(coefficients && coefficients->complete(), "coefficients are missing");
    require(filters.has_value(), "its transform table is missing");
    const auto width = static_cast<size_t>(frame->width);
    std::vector<Lanes> work(static_cast<size_t>(std::max(frame->width, frame->height)) + 2 * kReach);
    for (auto region = tree.splits.rbegin(); region != tree.splits.rend(); ++region) {
      join(coefficients->plane, width, *region, *filters, work);
    }
    return {frame->width, frame->height, pixelsPerInch, greyLevels(coefficients->plane, *frame)};
  }
};

}  // namespace

bool looksLikeWsq(std::span<const uint8_t> bytes) {
  return bytes.size() >= 4 && Reader(bytes).number(2) == kStartOfImage && bytes[2] == 0xFF && bytes[3] >= 0xA1 &&
         bytes[3] <= 0xA8;
}

WsqPicture decodeWsq(std::span<const uint8_t> bytes, int longestEdge, size_t largestArea) {
  Reader file(bytes);
  require(looksLikeWsq(bytes), "it is no WSQ picture");
  file.take(2);
  Decoder decoder;
  decoder.longestEdge = longestEdge;
  decoder.largestArea = largestArea;
  for (uint32_t marker = file.number(2); marker != kEndOfImage; marker = file.number(2)) {
    decoder.readSegment(marker, file);
  }
  return decoder.finish();
}

}  // namespace kelm::tools
