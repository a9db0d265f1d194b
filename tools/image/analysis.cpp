// SPDX-License-Identifier: Apache-2.0
#include "tools/image/analysis.h"

#include <algorithm>
#include <chrono>
#include <cmath>

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

 private:
  Timings &timings;
};

// The grid over a picture of the given size that is `scale` times smaller than the one it was made from. Cells that the
// toolkit leaves out at the right and lower edge repeat their neighbours.
template <typename Sample>
Grid<Sample> spread(const Grid<Sample> &grid, int scale, int width, int height) {
  const int cell = grid.cell / scale;
  Grid<Sample> out{cell, (height + cell - 1) / cell, (width + cell - 1) / cell, {}};
  for (int row = 0; row < out.rows; ++row) {
    for (int col = 0; col < out.cols; ++col) {
      out.data.push_back(grid.at(std::min(col, grid.cols - 1), std::min(row, grid.rows - 1)));
    }
  }
  return out;
}

Grid<uint8_t> gridOf(const Picture &half) { return {2, half.height, half.width, half.samples}; }

Picture pictureOf(const Grid<uint8_t> &grid, int width, int height) {
  Picture out(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) out.at(x, y) = grid.at(x / grid.cell, y / grid.cell);
  }
  return out;
}

double medianPeriod(const Analysis &analysis) {
  std::vector<float> periods;
  for (const float period : analysis.periods.data) {
    if (period > 0) periods.push_back(period);
  }
  if (periods.empty()) return 0;
  const auto middle = periods.begin() + static_cast<ptrdiff_t>(periods.size() / 2);
  std::nth_element(periods.begin(), middle, periods.end());
  return *middle;
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
  double count = 0, sum = 0;
  for (size_t i = 0; i < analysis.mask.samples.size(); ++i) {
    if (analysis.mask.samples[i] == 0) continue;
    ++count;
    sum += analysis.picture.samples[i];
  }
  auto left = static_cast<uint32_t>(analysis.picture.samples.size() / 100);
  int lightest = 255;
  while (lightest > 0 && analysis.printHistogram[static_cast<size_t>(lightest)] <= left) {
    left -= analysis.printHistogram[static_cast<size_t>(lightest--)];
  }
  return count == 0 ? lightest : static_cast<int>((sum / count + 7.0 * lightest) / 8);
}

// The middle three quarters of the rectangle around the foreground, where only a gap can be light; the picture where
// there is no foreground.
Picture centralRegion(const Analysis &analysis) {
  const Picture &mask = analysis.mask;
  int left = mask.width, right = 0, top = mask.height, bottom = 0;
  for (int y = 0; y < mask.height; ++y) {
    for (int x = 0; x < mask.width; ++x) {
      if (mask.at(x, y) == 0) continue;
      left = std::min(left, x);
      right = std::max(right, x + 1);
      top = std::min(top, y);
      bottom = std::max(bottom, y + 1);
    }
  }
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
  constexpr double kLeastClarity = 20;
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

}  // namespace

bool Analysis::inForeground(int column, int row, int cell) const {
  int inside = 0, all = 0;
  for (int y = row * cell; y < std::min((row + 1) * cell, mask.height); ++y) {
    for (int x = column * cell; x < std::min((column + 1) * cell, mask.width); ++x) {
      inside += mask.at(x, y) != 0;
      ++all;
    }
  }
  return 2 * inside > all;
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
  const Picture print = out.scale == 2 ? enlarged(picture) : picture;
  const auto onPicture = [&](const auto &grid) { return spread(grid, out.scale, width, height); };

  const Orientation orientation =
      watch.time("orientation", [&] { return orientationOf(half, print.width, print.height, settings.window); });
  const Coherence coherence = watch.time("coherence", [&] { return coherenceOf(half); });
  const Picture mask = watch.time("foreground", [&] { return foregroundOf(coherence); });
  const Periods periods =
      watch.time("ridge period", [&] { return smoothedPeriods(periodsOf(print, orientation.direction8), mask); });
  const Picture gradient = watch.time("gradient picture", [&] { return gradientOf(orientation, settings.window); });
  out.thresholds = watch.time("thresholds", [&] { return thresholdsOf(gradient); });
  out.grades = watch.time("block quality", [&] { return onPicture(gradesOf(print)); });
  watch.time("maps", [&] {
    const Grid<uint8_t> eighths = onPicture(periods.smoothed);
    out.periods = {eighths.cell, eighths.rows, eighths.cols, {}};
    for (const uint8_t period : eighths.data) {
      out.periods.data.push_back(period == kNoPeriod ? 0
                                                     : static_cast<float>(period) / static_cast<float>(8 * out.scale));
    }
    out.numbers.period = medianPeriod(out);
    out.mask = pictureOf(onPicture(gridOf(mask)), width, height);
    out.direction8 = onPicture(orientation.direction8);
    out.direction16 = onPicture(orientation.direction16);
    if (out.numbers.period > 0) {
      straightenDirections(out.direction8, out.numbers.period * out.scale / 2);
      straightenDirections(out.direction16, out.numbers.period * out.scale / 2);
    }
    out.change = onPicture(orientation.change);
    out.gradient = onPicture(gridOf(gradient));
    out.clarity = onPicture(clarityOf(coherence, periods));
    out.complexity = complexityOf(mask);
    return 0;
  });
  watch.time("histograms", [&] {
    out.printHistogram = histogramOf(picture);
    out.gradientHistogram = histogramOf(gradient);
    out.smoothed = smoothedHistogram(out.gradientHistogram);
    return 0;
  });
  watch.time("numbers", [&] {
    fillNumbers(out);
    return 0;
  });
  out.numbers.continuous = watch.time("continuity", [&] { return isContinuous(out); });
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

std::string numbersAsJson(const Analysis &analysis, const std::string &name) {
  nlohmann::ordered_json json = {{"path", name}};
  json.update(mainNumbers(analysis));
  json["thresholdShape"] = analysis.thresholds.shape;
  json["thresholdMode"] = analysis.thresholds.mode;
  json["complexity"] = rounded(analysis.complexity, 100);
  json["meanGrey"] = analysis.numbers.meanGrey;
  for (const auto &[step, milliseconds] : analysis.timings) json["milliseconds"][step] = rounded(milliseconds, 1000);
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace kelm::tools
