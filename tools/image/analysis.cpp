// SPDX-License-Identifier: Apache-2.0
#include "tools/image/analysis.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

namespace kelm::tools {
namespace {

// A print at 500 dpi has ridges 7 to 12 pixels apart; half-size pictures of closer ones would have less than three
// pixels for a ridge and a valley, too few for gradients.
constexpr double kNarrowPeriod = 6.5;

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

double medianPeriod(const Analysis &analysis) {
  std::vector<uint8_t> periods;
  const Grid<uint8_t> &map = analysis.periods;
  for (int row = 0; row < map.rows; ++row) {
    for (int column = 0; column < map.cols; ++column) {
      const uint8_t period = map.at(column, row);
      if (period != kNoPeriod && analysis.inForeground(column * map.cell, row * map.cell, map.cell)) {
        periods.push_back(period);
      }
    }
  }
  if (periods.empty()) return 0;
  const auto middle = periods.begin() + static_cast<ptrdiff_t>(periods.size() / 2);
  std::nth_element(periods.begin(), middle, periods.end());
  return *middle / 8.0;
}

void gradeNumbers(const Analysis &analysis, Numbers &numbers) {
  double count = 0, sum = 0, squares = 0;
  const Grid<uint8_t> &grades = analysis.grades;
  for (int row = 0; row < grades.rows; ++row) {
    for (int column = 0; column < grades.cols; ++column) {
      if (!analysis.inForeground(column * grades.cell, row * grades.cell, grades.cell)) continue;
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

// Seven eighths of the way from the mean grey of the finger to the lightest hundredth of the picture: a straight valley
// with its flanks stays below, paper does not.
int lightLevelOf(const Analysis &analysis) {
  const Picture &half = analysis.half;
  double count = 0, sum = 0;
  for (size_t i = 0; i < half.samples.size(); ++i) {
    if (analysis.segmentation.mask.samples[i] == 0) continue;
    ++count;
    sum += half.samples[i];
  }
  uint32_t left =
      static_cast<uint32_t>(static_cast<size_t>(analysis.width) * static_cast<size_t>(analysis.height) / 100);
  int lightest = 255;
  while (lightest > 0 && analysis.printHistogram[static_cast<size_t>(lightest)] <= left) {
    left -= analysis.printHistogram[static_cast<size_t>(lightest--)];
  }
  return count == 0 ? lightest : static_cast<int>((sum / count + 7.0 * lightest) / 8);
}

// The middle three quarters of the rectangle around the foreground, where only a gap can be light; the picture where
// there is no foreground. In pixels of the picture as it was read.
Picture heartOf(const Analysis &analysis, const Picture &picture) {
  const Picture &mask = analysis.segmentation.mask;
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
  if (left >= right) return picture;
  const int unit = analysis.scale == 1 ? 2 : 1;
  const int marginX = (right - left) / 8, marginY = (bottom - top) / 8;
  Picture heart(unit * (right - left - 2 * marginX), unit * (bottom - top - 2 * marginY));
  for (int y = 0; y < heart.height; ++y) {
    std::copy_n(
        &picture.samples[static_cast<size_t>((unit * (top + marginY) + y) * picture.width + unit * (left + marginX))],
        heart.width, &heart.samples[static_cast<size_t>(y * heart.width)]);
  }
  return heart;
}

int meanOf(const Counters &counters) {
  uint64_t count = 0, sum = 0;
  for (size_t i = 0; i < counters.size(); ++i) {
    count += counters[i];
    sum += counters[i] * i;
  }
  return static_cast<int>((sum + count / 2) / count);
}

Analysis analyseAt(int scale, const Picture &picture) {
  Analysis out;
  StopWatch watch(out.timings);
  out.width = picture.width;
  out.height = picture.height;
  out.scale = scale;
  // A picture with narrow ridges is its own half-size picture; the full one is made from it.
  out.half = watch.time("half-size picture", [&] { return scale == 1 ? reduced(picture) : picture; });
  out.print = scale == 1 ? picture : enlarged(picture);
  const Picture &print = out.print;
  out.orientation = watch.time("orientation", [&] { return orientationOf(print, out.half); });
  out.periods = watch.time("ridge period", [&] { return periodsOf(print, out.orientation.direction8); });
  out.gradient = watch.time("gradient picture", [&] { return gradientOf(out.orientation); });
  out.segmentation = watch.time("foreground", [&] { return segment(out.gradient); });
  out.grades = watch.time("block quality", [&] { return gradesOf(print); });
  watch.time("histograms", [&] {
    out.printHistogram = histogramOf(picture);
    out.gradientHistogram = histogramOf(out.gradient);
    out.smoothed = smoothedHistogram(out.gradientHistogram);
    return 0;
  });
  Numbers &numbers = out.numbers;
  numbers.lightLevel = lightLevelOf(out);
  numbers.continuous = watch.time("continuity", [&] {
    const Picture heart = heartOf(out, picture);
    // A row is compared with the level times its width less ten.
    const int level = heart.width > 20 ? numbers.lightLevel * heart.width / (heart.width - 10) : numbers.lightLevel;
    return continuous(heart, level);
  });
  watch.time("numbers", [&] {
    const std::vector<uint8_t> &mask = out.segmentation.mask.samples;
    numbers.foreground =
        static_cast<double>(std::count(mask.begin(), mask.end(), 255)) / static_cast<double>(mask.size());
    numbers.period = medianPeriod(out) / scale;
    numbers.meanGrey = meanOf(out.printHistogram);
    gradeNumbers(out, numbers);
    return 0;
  });
  return out;
}

}  // namespace

bool Analysis::inForeground(int x, int y, int edge) const {
  const Picture &mask = segmentation.mask;
  int inside = 0, all = 0;
  for (int row = y / 2; row < std::min((y + edge) / 2, mask.height); ++row) {
    for (int column = x / 2; column < std::min((x + edge) / 2, mask.width); ++column) {
      inside += mask.at(column, row) != 0;
      ++all;
    }
  }
  return 2 * inside > all;
}

Analysis analyse(const Picture &print, const std::string &name) {
  requireAnalysable(print, name);
  Analysis out = analyseAt(1, print);
  const bool narrow = out.numbers.period > 0 && out.numbers.period < kNarrowPeriod;
  const bool mayGrow =
      print.samples.size() <= kLargestArea / 4 && std::max(print.width, print.height) <= int{kLongestEdge} / 2;
  if (!narrow || !mayGrow) return out;
  Timings first = std::move(out.timings);
  out = analyseAt(2, print);
  for (auto &[step, milliseconds] : out.timings) {
    for (const auto &[earlier, before] : first) milliseconds += step == earlier ? before : 0;
  }
  return out;
}

std::string numbersAsJson(const Analysis &analysis, const std::string &name) {
  const Numbers &numbers = analysis.numbers;
  const auto rounded = [](double value, double parts) { return std::round(value * parts) / parts; };
  nlohmann::ordered_json json = {{"path", name},
                                 {"width", analysis.width},
                                 {"height", analysis.height},
                                 {"scale", analysis.scale},
                                 {"quality", rounded(numbers.quality, 100)},
                                 {"qualitySpread", rounded(numbers.qualitySpread, 100)},
                                 {"foreground", rounded(numbers.foreground, 10000)},
                                 {"period", nullptr},
                                 {"continuous", numbers.continuous},
                                 {"thresholdShape", analysis.segmentation.shapeThreshold},
                                 {"thresholdMode", analysis.segmentation.modeThreshold},
                                 {"thresholdUsed", analysis.segmentation.modeChosen ? "mode" : "shape"},
                                 {"complexity", rounded(analysis.segmentation.complexity, 100)},
                                 {"meanGrey", numbers.meanGrey}};
  if (numbers.period > 0) json["period"] = numbers.period;
  for (const auto &[step, milliseconds] : analysis.timings) json["milliseconds"][step] = rounded(milliseconds, 1000);
  return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace kelm::tools
