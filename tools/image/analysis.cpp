// SPDX-License-Identifier: Apache-2.0
#include "tools/image/analysis.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "tools/output.h"

namespace kelm::tools {
namespace {

class StopWatch {
 public:
  explicit StopWatch(Timings &into) : timings(into) {}

  // Calls the step, keeps how long it took, and hands its result on.
  template <typename Step>
  auto time(const char *name, Step step) {
    const auto start = std::chrono::steady_clock::now();
    auto result = step();
    const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
    timings.emplace_back(name, taken.count());
    return result;
  }
  template <typename Step>
  void run(const char *name, Step step) {
    time(name, [&] {
      step();
      return 0;
    });
  }

 private:
  Timings &timings;
};

// The grid over a picture of the given size that is `scale` times smaller than the one it was made from. Cells that the
// toolkit leaves out at the right and lower edge repeat their neighbours.
template <typename Sample>
Grid<Sample> spread(const Grid<Sample> &grid, int scale, int width, int height) {
  const int cell = grid.cell / scale;
  Grid<Sample> out{cell, (height + cell - 1) / cell, (width + cell - 1) / cell, {}};
  out.data.reserve(static_cast<size_t>(out.rows) * static_cast<size_t>(out.cols));
  const int whole = std::min(grid.cols, out.cols);
  for (int row = 0; row < out.rows; ++row) {
    const auto from = grid.data.begin() + static_cast<ptrdiff_t>(std::min(row, grid.rows - 1)) * grid.cols;
    out.data.insert(out.data.end(), from, from + whole);
    out.data.insert(out.data.end(), static_cast<size_t>(out.cols - whole), from[whole - 1]);
  }
  return out;
}

Grid<uint8_t> gridOf(const Picture &half) { return {2, half.height, half.width, half.samples}; }

// A grid whose cells are one or two pixels wide, pixel by pixel.
Picture pictureOf(const Grid<uint8_t> &grid, int width, int height) {
  Picture out(width, height);
  if (grid.cell == 1) {
    out.samples = grid.data;
    return out;
  }
  for (int y = 0; y < height; ++y) {
    const uint8_t *cells = &grid.data[static_cast<size_t>(y / 2) * static_cast<size_t>(grid.cols)];
    uint8_t *row = &out.at(0, y);
    for (int x = 0; x < width / 2; ++x) row[2 * x] = row[2 * x + 1] = cells[x];
    row[width - 1] = cells[grid.cols - 1];
  }
  return out;
}

void gradeNumbers(const Analysis &analysis, Numbers &numbers) {
  double count = 0, sum = 0, squares = 0;
  const Grid<uint8_t> &grades = analysis.grades;
  // Only whole blocks have grades.
  for (int row = 0; row < analysis.picture.height / grades.cell; ++row) {
    for (int column = 0; column < analysis.picture.width / grades.cell; ++column) {
      if (!analysis.inForeground(column, row, grades.cell)) continue;
      const double grade = grades.at(column, row);
      ++count;
      sum += grade;
      squares += grade * grade;
    }
  }
  if (count == 0) return;
  numbers.quality = sum / count;
  numbers.qualitySpread = std::sqrt(std::max(0.0, squares / count - numbers.quality * numbers.quality));
}

// The mean over the foreground, or over the whole picture where there is none.
double meanClarity(const Analysis &analysis, bool everywhere) {
  const Grid<uint8_t> &clarity = analysis.clarity;
  double count = 0, sum = 0;
  for (int row = 0; row < clarity.rows; ++row) {
    for (int column = 0; column < clarity.cols; ++column) {
      if (!everywhere && !analysis.inForeground(column, row, clarity.cell)) continue;
      ++count;
      sum += clarity.at(column, row);
    }
  }
  return count == 0 ? 0 : sum / count;
}

// Seven eighths of the way from the mean grey of the finger to the lightest hundredth of the picture: a straight valley
// with its flanks stays below, paper does not.
int lightLevelOf(const Analysis &analysis) {
  uint32_t count = 0, sum = 0;  // which the largest area cannot overflow
  for (size_t i = 0; i < analysis.mask.samples.size(); ++i) {
    count += analysis.mask.samples[i] & 1u;
    sum += static_cast<uint32_t>(analysis.mask.samples[i] & analysis.picture.samples[i]);
  }
  auto left = static_cast<uint32_t>(analysis.picture.samples.size() / 100);
  int lightest = 255;
  while (lightest > 0 && analysis.printHistogram[static_cast<size_t>(lightest)] <= left) {
    left -= analysis.printHistogram[static_cast<size_t>(lightest--)];
  }
  return count == 0 ? lightest : static_cast<int>((static_cast<double>(sum) / count + 7.0 * lightest) / 8);
}

// From the first value that is not 0 to behind the last.
std::pair<int, int> extentOf(const std::vector<uint8_t> &values) {
  const auto set = [](uint8_t value) { return value != 0; };
  const auto first = std::find_if(values.begin(), values.end(), set);
  const auto last = std::find_if(values.rbegin(), values.rend(), set);
  return {static_cast<int>(first - values.begin()), static_cast<int>(values.rend() - last)};
}

// The middle three quarters of the rectangle around the foreground, where only a gap can be light; the picture where
// there is no foreground.
Picture centralRegion(const Analysis &analysis) {
  const Picture &mask = analysis.mask;
  std::vector<uint8_t> columns(static_cast<size_t>(mask.width)), rows(static_cast<size_t>(mask.height));
  uint8_t *const __restrict inColumn = columns.data();
  for (int y = 0; y < mask.height; ++y) {
    const uint8_t *const row = &mask.samples[static_cast<size_t>(y) * static_cast<size_t>(mask.width)];
    uint8_t any = 0;
    for (int x = 0; x < mask.width; ++x) {
      inColumn[x] |= row[x];
      any |= row[x];
    }
    rows[static_cast<size_t>(y)] = any;
  }
  const auto [left, right] = extentOf(columns);
  const auto [top, bottom] = extentOf(rows);
  if (left >= right) return analysis.picture;
  const int marginX = (right - left) / 8, marginY = (bottom - top) / 8;
  return part(analysis.picture, left + marginX, top + marginY, right - left - 2 * marginX, bottom - top - 2 * marginY);
}

bool isContinuous(const Analysis &analysis) {
  constexpr int kLongest = 1024;  // that the toolkit examines
  Picture region = centralRegion(analysis);
  while (std::max(region.width, region.height) > kLongest) region = reduced(region);
  // A row is compared with the level times its width less ten.
  const int level = analysis.numbers.lightLevel;
  return continuous(region, region.width > 20 ? level * region.width / (region.width - 10) : level);
}

int meanOf(const Counters &counters) {
  uint64_t count = 0, sum = 0;
  for (size_t i = 0; i < counters.size(); ++i) {
    count += counters[i];
    sum += counters[i] * i;
  }
  return static_cast<int>((sum + count / 2) / count);
}

// Enough of a picture in pixels of a 500 dpi print, with ridges in it that can be told from noise.
bool isFinger(const Analysis &analysis) {
  constexpr double kSmallest = 64 * 64;
  const double area = analysis.numbers.foreground * static_cast<double>(analysis.picture.samples.size());
  return area * analysis.scale * analysis.scale >= kSmallest && analysis.numbers.period > 0 &&
         analysis.numbers.clarity >= kLeastClarity;
}

void fillNumbers(Analysis &out) {
  Numbers &numbers = out.numbers;
  const std::vector<uint8_t> &mask = out.mask.samples;
  numbers.foreground =
      static_cast<double>(std::count(mask.begin(), mask.end(), 255)) / static_cast<double>(mask.size());
  numbers.meanGrey = meanOf(out.printHistogram);
  numbers.lightLevel = lightLevelOf(out);
  gradeNumbers(out, numbers);
  numbers.clarity = meanClarity(out, false);
  numbers.finger = isFinger(out);
  if (!numbers.finger) numbers.clarity = meanClarity(out, true);
}

float inPixels(uint8_t eighths, int scale) {
  return eighths == kNoPeriod ? 0 : static_cast<float>(eighths) / static_cast<float>(8 * scale);
}

// What only pictures show.
void addMaps(Analysis &out, const Orientation &orientation, const Picture &mask, int window) {
  const auto onPicture = [&](const auto &grid) {
    return spread(grid, out.scale, out.picture.width, out.picture.height);
  };
  out.direction8 = onPicture(orientation.direction8);
  out.direction16 = onPicture(orientation.direction16);
  if (out.numbers.period > 0) {
    straightenDirections(out.direction8, out.numbers.period * out.scale / 2);
    straightenDirections(out.direction16, out.numbers.period * out.scale / 2);
  }
  out.change = onPicture(orientation.change);
  const Picture gradient = gradientOf(orientation, window);
  out.gradient = onPicture(gridOf(gradient));
  out.thresholds = thresholdsOf(gradient);
  out.complexity = complexityOf(mask);
  out.gradientHistogram = histogramOf(gradient);
  out.smoothed = smoothedHistogram(out.gradientHistogram);
}

}  // namespace

bool Analysis::inForeground(int column, int row, int cell) const {
  const int left = column * cell, right = std::min(left + cell, mask.width);
  const int top = row * cell, bottom = std::min(top + cell, mask.height);
  int inside = 0;
  for (int y = top; y < bottom; ++y) {
    const uint8_t *samples = &mask.samples[static_cast<size_t>(y) * static_cast<size_t>(mask.width)];
    for (int x = left; x < right; ++x) inside += samples[x] & 1;
  }
  return 2 * inside > (right - left) * (bottom - top);
}

Analysis analyse(const Picture &picture, const std::string &name, const AnalysisSettings &settings) {
  requireAnalysable(picture, name);
  Analysis out;
  StopWatch watch(out.timings);
  out.picture = picture;
  const int width = picture.width, height = picture.height;
  Picture half = watch.time("half-size picture", [&] { return reduced(picture); });
  out.scale = watch.time("width of the ridges", [&] {
    const bool mayGrow = picture.samples.size() <= kLargestArea / 4 && std::max(width, height) <= int{kLongestEdge} / 2;
    return mayGrow && narrowRidges(picture, half) ? 2 : 1;
  });
  // A picture with narrow ridges is its own half-size picture; the full one is made from it.
  if (out.scale == 2) half = picture;
  const Picture doubled = out.scale == 2 ? enlarged(picture) : Picture();
  const Picture &print = out.scale == 2 ? doubled : picture;

  const Orientation orientation =
      watch.time("orientation", [&] { return orientationOf(half, print.width, print.height, settings.window); });
  const Coherence coherence = watch.time("coherence", [&] { return coherenceOf(half); });
  const Grid<uint8_t> periods = watch.time("ridge period", [&] { return periodsOf(print, orientation.direction8); });
  const Finger finger = watch.time("foreground", [&] { return fingerOf(coherence, periods); });
  out.grades = watch.time("block quality", [&] { return spread(gradesOf(print), out.scale, width, height); });
  watch.run("numbers", [&] {
    out.printHistogram = histogramOf(picture);
    out.mask = pictureOf(spread(gridOf(finger.mask), out.scale, width, height), width, height);
    out.clarity = spread(finger.clarity, out.scale, width, height);
    const Grid<uint8_t> eighths = spread(finger.periods.smoothed, out.scale, width, height);
    out.periods = {eighths.cell, eighths.rows, eighths.cols, {}};
    for (const uint8_t period : eighths.data) out.periods.data.push_back(inPixels(period, out.scale));
    out.numbers.period = inPixels(medianPeriod(eighths), out.scale);
    fillNumbers(out);
  });
  out.numbers.continuous = watch.time("continuity", [&] { return isContinuous(out); });
  if (settings.maps) watch.run("maps", [&] { addMaps(out, orientation, finger.mask, settings.window); });
  return out;
}

namespace {
double rounded(double value, double parts) { return std::round(value * parts) / parts; }
}  // namespace

nlohmann::ordered_json mainNumbers(const Analysis &analysis) {
  const Numbers &numbers = analysis.numbers;
  nlohmann::ordered_json json = {{"width", analysis.picture.width},
                                 {"height", analysis.picture.height},
                                 {"resolution", nullptr},
                                 {"scale", analysis.scale},
                                 {"finger", numbers.finger},
                                 {"clarity", rounded(numbers.clarity, 10)},
                                 {"quality", rounded(numbers.quality, 100)},
                                 {"qualitySpread", rounded(numbers.qualitySpread, 100)},
                                 {"foreground", rounded(numbers.foreground, 10000)},
                                 {"period", nullptr},
                                 {"continuous", numbers.continuous}};
  if (analysis.picture.resolution > 0) json["resolution"] = analysis.picture.resolution;
  if (numbers.period > 0) json["period"] = rounded(numbers.period, 100);
  return json;
}

std::string numbersAsJson(const Analysis &analysis, const std::string &name, bool timings) {
  nlohmann::ordered_json json = {{"ok", true}, {"path", name}};
  json.update(mainNumbers(analysis));
  json["thresholdShape"] = analysis.thresholds.shape;
  json["thresholdMode"] = analysis.thresholds.mode;
  json["complexity"] = rounded(analysis.complexity, 100);
  json["meanGrey"] = analysis.numbers.meanGrey;
  for (const auto &[step, milliseconds] : analysis.timings) {
    if (timings) json["milliseconds"][step] = rounded(milliseconds, 1000);
  }
  return jsonText(json);
}

}  // namespace kelm::tools
