// SPDX-License-Identifier: Apache-2.0
#include "tools/image/synth.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tools/image/synth_math.h"

namespace kelm::tools {
namespace {

// ---- The plan of a print: where it lies and how its ridges run

struct Point {
  double x, y;
};

struct Plan {
  int width, height;
  double period;  // of the ridges, on average
  double tilt;    // of the whole field, radians
  Point centre;   // of the finger
  double halfWidth, halfHeight;
  std::vector<Point> loops, deltas;
  double archHeight;   // of a plain arch; 0 for the other classes
  double wave[4];      // phases of the slow changes of the period
  double pressure[4];  // and of the pressure
};

// Singular points in units of the finger's half axes from its centre, y downward.
struct Singularities {
  std::vector<Point> loops, deltas;
};

const Singularities kSingularities[] = {
    {{}, {}},
    {{{0.0, -0.10}}, {{0.0, 0.42}}},
    {{{0.02, -0.18}}, {{0.52, 0.42}}},
    {{{-0.02, -0.18}}, {{-0.52, 0.42}}},
    {{{0.0, -0.26}, {0.0, 0.06}}, {{-0.62, 0.46}, {0.62, 0.46}}},
};

Plan makePlan(const SynthSettings &settings, Random &random) {
  Plan plan{};
  plan.width = settings.width;
  plan.height = settings.height;
  plan.period = random.between(8.6, 9.8);
  plan.tilt = random.between(-0.08, 0.08);
  plan.centre = {settings.width * random.between(0.49, 0.51), settings.height * random.between(0.49, 0.51)};
  plan.halfWidth = settings.width * 0.45;
  plan.halfHeight = settings.height * 0.46;
  const Singularities &singularities = kSingularities[static_cast<int>(settings.printClass)];
  const auto place = [&](const std::vector<Point> &from, std::vector<Point> &to) {
    for (const Point &point : from) {
      to.push_back({plan.centre.x + plan.halfWidth * (point.x + random.between(-0.05, 0.05)),
                    plan.centre.y + plan.halfHeight * (point.y + random.between(-0.04, 0.04))});
    }
  };
  place(singularities.loops, plan.loops);
  place(singularities.deltas, plan.deltas);
  // The two points of a tented arch stand one above the other.
  if (settings.printClass == PrintClass::TentedArch) plan.deltas[0].x = plan.loops[0].x;
  if (settings.printClass == PrintClass::Arch) plan.archHeight = random.between(0.9, 1.3);
  for (double &phase : plan.wave) phase = random.between(0, 2 * kPi);
  for (double &phase : plan.pressure) phase = random.between(0, 2 * kPi);
  return plan;
}

// Radians, counter-clockwise from the horizontal.
double orientationAt(const Plan &plan, double x, double y) {
  const double u = (x - plan.centre.x) / plan.halfWidth;
  const double v = (y - plan.centre.y) / plan.halfHeight;
  // Far from the singular points ridges would run straight; towards the tip they bend with the outline.
  const double background = plan.tilt - steadyAtan2(1.1 * u * std::max(0.0, -v - 0.05), 1);
  if (plan.archHeight > 0) {
    // Steepest a little below the middle, flat at the crease.
    const double steepness = plan.archHeight * steadyExp(-(v - 0.15) * (v - 0.15) / 0.25);
    return background - steadyAtan2(steepness * steadySin(std::clamp(u, -1.0, 1.0) * kPi), 1);
  }
  double angle = 0;
  for (const Point &loop : plan.loops) angle += steadyAtan2(loop.y - y, x - loop.x);
  for (const Point &delta : plan.deltas) angle -= steadyAtan2(delta.y - y, x - delta.x);
  return background + angle / 2;
}

double slowWave(const double (&phase)[4], double u, double v) {
  return 0.5 * (steadySin(2.1 * u + 1.3 * v + phase[0]) * steadySin(1.2 * u - 2.3 * v + phase[1]) +
                steadySin(3.1 * u - 0.7 * v + phase[2]) * steadySin(0.9 * u + 2.9 * v + phase[3]));
}

double periodAt(const Plan &plan, double x, double y) {
  const double u = (x - plan.centre.x) / plan.halfWidth;
  const double v = (y - plan.centre.y) / plan.halfHeight;
  // Ridges lie a little wider apart below the core, as on fingers.
  return plan.period * (1 + 0.08 * slowWave(plan.wave, u, v) + 0.05 * std::clamp(v, -1.0, 1.0));
}

// How far inside the outline: 1 at the centre, 0 on the line, negative outside. A narrower tip than root.
double insideAt(const Plan &plan, double x, double y) {
  const double v = (y - plan.centre.y) / plan.halfHeight;
  const double u = (x - plan.centre.x) / (plan.halfWidth * (v < 0 ? 1 : 1 - 0.08 * v));
  const double u2 = u * u;
  const double v2 = v * v;
  // Nearly an ellipse towards the tip, squarer towards the root.
  const double square = v < 0 ? 0.3 : 0.7;
  const double far = u2 * (1 - square + square * u2) + v2 * (1 - square + square * v2);
  return 1 - std::sqrt(far);
}

// ---- Growth of the ridges

constexpr int kOrientations = 64;
constexpr int kPeriods = 9;
constexpr double kPeriodSpread = 0.16;  // the bank covers the average period give or take this share
constexpr int kRadius = 11;
constexpr int kRows = 2 * kRadius + 1;
constexpr int kColumns = kRows + 1;  // even, for the sake of the vector units; the last column is 0
constexpr int kFull = 256;           // ridge values lie between -kFull (a valley) and kFull (a ridge)
constexpr int kTile = 16;
// A full wave answers a filter with about 0.8 x kFull x 2^15. While growing, sixteen times that is cut off at kFull, so
// that a spot grows by a ridge a round; the last round leaves ridges with rounded tops.
constexpr int kGrowing = 2048;
constexpr int kShaping = 8192;

struct Filter {
  int16_t weight[kRows * kColumns];
};

// A wave across the ridges under a round Gaussian window, without a constant part, so that flat areas stay flat.
Filter makeFilter(double orientation, double period) {
  const double sigma = 0.40 * period;
  const double c = steadyCos(orientation);
  const double s = steadySin(orientation);
  double wave[kRows * kRows];
  double window[kRows * kRows];
  double waveSum = 0;
  double windowSum = 0;
  for (int i = 0; i < kRows * kRows; ++i) {
    const double x = i % kRows - kRadius;
    const double y = i / kRows - kRadius;
    // Across ridges that run along (c, -s) in columns and rows.
    const double across = x * s + y * c;
    window[i] = steadyExp(-(x * x + y * y) / (2 * sigma * sigma));
    wave[i] = window[i] * steadyCos(2 * kPi * across / period);
    waveSum += wave[i];
    windowSum += window[i];
  }
  double strength = 0;
  for (int i = 0; i < kRows * kRows; ++i) {
    wave[i] -= window[i] * waveSum / windowSum;
    strength += wave[i] < 0 ? -wave[i] : wave[i];
  }
  Filter filter{};
  for (int i = 0; i < kRows * kRows; ++i) {
    // Weights that add up, without their signs, to 2^15: a sum over values up to kFull stays far below 2^31.
    const double weight = wave[i] * 32768 / strength;
    filter.weight[i / kRows * kColumns + i % kRows] = static_cast<int16_t>(weight + (weight < 0 ? -0.5 : 0.5));
  }
  return filter;
}

// Exact integers, so the compiler may add them up in any order. Nearly all the time of a print goes here, and with the
// sanitizers' checks on every sample it would be minutes; the margins around the ridges hold every window.
__attribute__((no_sanitize("address", "undefined"))) int32_t applyFilter(const Filter &filter, const int16_t *corner,
                                                                         size_t stride) {
  int32_t sum = 0;
  for (int row = 0; row < kRows; ++row) {
    const int16_t *samples = corner + static_cast<size_t>(row) * stride;
    const int16_t *weights = filter.weight + row * kColumns;
    for (int i = 0; i < kColumns; ++i) sum += weights[i] * samples[i];
  }
  return sum;
}

class Growth {
 public:
  Growth(const Plan &printPlan, const SynthPrint &print, Random &random)
      : plan(printPlan),
        stride(static_cast<size_t>(plan.width + 2 * kColumns)),
        tileColumns((plan.width + kTile - 1) / kTile),
        tileRows((plan.height + kTile - 1) / kTile),
        ridges(stride * static_cast<size_t>(plan.height + 2 * kColumns)),
        next(ridges.size()),
        chosen(print.period.size()),
        busy(static_cast<size_t>(tileColumns * tileRows), 1) {
    for (int o = 0; o < kOrientations; ++o) {
      for (int p = 0; p < kPeriods; ++p) bank.push_back(makeFilter(kPi * o / kOrientations, bankPeriod(p)));
    }
    for (size_t i = 0; i < chosen.size(); ++i) chosen[i] = chooseFilter(print.orientation[i], print.period[i]);
    sow(random);
  }

  // Until nothing moves any more, or what still moves is a flicker.
  void run() {
    for (int round = 0; round < 60 && step(kGrowing); ++round) {
    }
    std::fill(busy.begin(), busy.end(), 1);
    step(kShaping);
  }

  int value(int x, int y) const { return ridges[index(x, y)]; }

 private:
  double bankPeriod(int p) const { return plan.period * (1 - kPeriodSpread + 2 * kPeriodSpread * p / (kPeriods - 1)); }

  int16_t chooseFilter(double orientation, double period) const {
    if (period == 0) return -1;
    const double part = orientation / kPi - std::floor(orientation / kPi);
    const int o = static_cast<int>(part * kOrientations + 0.5) % kOrientations;
    const double place = (period / plan.period - 1 + kPeriodSpread) / (2 * kPeriodSpread) * (kPeriods - 1);
    const int p = std::clamp(static_cast<int>(place + 0.5), 0, kPeriods - 1);
    return static_cast<int16_t>(o * kPeriods + p);
  }

  size_t index(int x, int y) const {
    return static_cast<size_t>(y + kColumns) * stride + static_cast<size_t>(x + kColumns);
  }

  // One spot in every 46 x 46 pixels or so: the fewer, the fewer minutiae.
  void sow(Random &random) {
    for (int spots = plan.width * plan.height / 2100 + 1; spots > 0; --spots) {
      const int x = random.below(plan.width - 4) + 2;
      const int y = random.below(plan.height - 4) + 2;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) ridges[index(x + dx, y + dy)] = kFull;
      }
    }
    next = ridges;
  }

  bool nearBusy(int tileX, int tileY) const {
    for (int y = std::max(0, tileY - 1); y <= std::min(tileRows - 1, tileY + 1); ++y) {
      for (int x = std::max(0, tileX - 1); x <= std::min(tileColumns - 1, tileX + 1); ++x) {
        if (busy[static_cast<size_t>(y * tileColumns + x)]) return true;
      }
    }
    return false;
  }

  // Filters the tiles that moved in the last step, or lie next to one that did; whether any pixel moved.
  bool step(int divisor) {
    std::vector<uint8_t> moved(busy.size(), 0);
    bool any = false;
    for (int tileY = 0; tileY < tileRows; ++tileY) {
      for (int tileX = 0; tileX < tileColumns; ++tileX) {
        if (!nearBusy(tileX, tileY)) continue;
        const bool movedHere = filterTile(tileX * kTile, tileY * kTile, divisor);
        moved[static_cast<size_t>(tileY * tileColumns + tileX)] = movedHere;
        any |= movedHere;
      }
    }
    ridges = next;
    busy = std::move(moved);
    return any;
  }

  bool filterTile(int left, int top, int divisor) {
    bool moved = false;
    for (int y = top; y < std::min(top + kTile, plan.height); ++y) {
      for (int x = left; x < std::min(left + kTile, plan.width); ++x) {
        const int which = chosen[static_cast<size_t>(y * plan.width + x)];
        if (which < 0) continue;
        const int32_t sum =
            applyFilter(bank[static_cast<size_t>(which)], &ridges[index(x - kRadius, y - kRadius)], stride);
        const int value = std::clamp(sum / divisor, -kFull, kFull);
        const int before = ridges[index(x, y)];
        next[index(x, y)] = static_cast<int16_t>(value);
        moved |= std::abs(value - before) > 8;
      }
    }
    return moved;
  }

  const Plan &plan;
  size_t stride;
  int tileColumns, tileRows;
  std::vector<int16_t> ridges, next;
  std::vector<int16_t> chosen;  // the filter of each pixel, -1 outside the finger
  std::vector<uint8_t> busy;
  std::vector<Filter> bank;
};

// ---- From ridges to a picture

// Values from -128 to 127 that change over `grain` pixels or so.
std::vector<int16_t> patches(int width, int height, int grain, Random &random) {
  const int columns = width / grain + 2;
  const int rows = height / grain + 2;
  std::vector<int> knots(static_cast<size_t>(columns * rows));
  for (int &knot : knots) knot = random.below(256) - 128;
  std::vector<int16_t> out;
  out.reserve(static_cast<size_t>(width * height));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int *knot = &knots[static_cast<size_t>(y / grain * columns + x / grain)];
      const int fx = x % grain;
      const int fy = y % grain;
      const int upper = knot[0] * (grain - fx) + knot[1] * fx;
      const int lower = knot[columns] * (grain - fx) + knot[columns + 1] * fx;
      out.push_back(static_cast<int16_t>((upper * (grain - fy) + lower * fy) / (grain * grain)));
    }
  }
  return out;
}

// Sweat pores: small light dots on the ridges.
void pierce(std::vector<int16_t> &ink, const Growth &growth, int width, int height, Random &random) {
  for (int pores = width * height / 160; pores > 0; --pores) {
    const int x = random.below(width - 4) + 2;
    const int y = random.below(height - 4) + 2;
    if (growth.value(x, y) < kFull * 3 / 4) continue;
    const int depth = 40 + random.below(90);
    for (int dy = -1; dy <= 1; ++dy) {
      for (int dx = -1; dx <= 1; ++dx) {
        int16_t &sample = ink[static_cast<size_t>((y + dy) * width + x + dx)];
        sample = static_cast<int16_t>(sample - depth / (1 + std::abs(dx) + std::abs(dy)));
      }
    }
  }
}

// A 3 x 3 mean with the weights 1 2 1, as the optics of a sensor would blur.
Picture soften(const std::vector<int16_t> &ink, int width, int height) {
  Picture picture(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int sum = 0;
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          const int cx = std::clamp(x + dx, 0, width - 1);
          const int cy = std::clamp(y + dy, 0, height - 1);
          sum += (2 - std::abs(dx)) * (2 - std::abs(dy)) * ink[static_cast<size_t>(cy * width + cx)];
        }
      }
      picture.at(x, y) = static_cast<uint8_t>(255 - std::clamp(sum / 16, 0, 255));
    }
  }
  return picture;
}

// Ink from 0 (paper) to 255 or so, 256ths of the ridge values scaled by pressure, with the edge frayed by noise.
Picture print(const Plan &plan, const Growth &growth, int noise, Random &random) {
  const int width = plan.width;
  const int height = plan.height;
  const std::vector<int16_t> coarse = patches(width, height, 24, random);
  const std::vector<int16_t> fine = patches(width, height, 3, random);
  std::vector<int16_t> ink(static_cast<size_t>(width * height));
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const size_t i = static_cast<size_t>(y * width + x);
      const double inside = insideAt(plan, x, y) * 640 + coarse[i] * 0.18 + fine[i] * 0.12;
      const int edge = std::clamp(static_cast<int>(inside * 8), 0, 256);
      // Pressure shifts the level at which ink begins: dry prints have thin ridges, wet ones thick.
      const double u = (x - plan.centre.x) / plan.halfWidth;
      const double v = (y - plan.centre.y) / plan.halfHeight;
      const int wet = static_cast<int>(70 * slowWave(plan.pressure, u, v)) + coarse[i] * noise / 100;
      const int speckle = (random.below(256) - 128) * noise / 100 + fine[i] * noise * 2 / 100;
      const int level = growth.value(x, y) * 115 / kFull + 118 + wet / 2 + speckle;
      ink[i] = static_cast<int16_t>(edge * std::clamp(level, 0, 255) / 256);
    }
  }
  pierce(ink, growth, width, height, random);
  return soften(ink, width, height);
}

// Wipes out a band across the middle third, as a fold in the skin or a jump of the sensor leaves it.
void wipe(const SynthSettings &settings, SynthPrint &print) {
  if (settings.gap == 0) return;
  Random random(settings.seed ^ 0x676170u);  // apart, so that the rest of the print is the same without a gap
  const int height = std::min(settings.gap, settings.height);
  const double middle = settings.height * random.between(0.4, 0.6);
  const int top = std::clamp(static_cast<int>(middle) - height / 2, 0, settings.height - height);
  const auto first = static_cast<ptrdiff_t>(top) * settings.width;
  const auto count = static_cast<ptrdiff_t>(height) * settings.width;
  std::fill_n(print.picture.samples.begin() + first, count, uint8_t{255});
  std::fill_n(print.period.begin() + first, count, 0.0f);
}

}  // namespace

SynthPrint synthesise(const SynthSettings &settings) {
  Random random(settings.seed * kPrintClasses.size() + static_cast<uint64_t>(settings.printClass));
  const Plan plan = makePlan(settings, random);
  SynthPrint out;
  const size_t area = static_cast<size_t>(plan.width) * static_cast<size_t>(plan.height);
  out.orientation.resize(area);
  out.period.resize(area);
  for (int y = 0; y < plan.height; ++y) {
    for (int x = 0; x < plan.width; ++x) {
      if (insideAt(plan, x, y) < -0.02) continue;
      const size_t i = static_cast<size_t>(y * plan.width + x);
      out.orientation[i] = static_cast<float>(orientationAt(plan, x, y));
      out.period[i] = static_cast<float>(periodAt(plan, x, y));
    }
  }
  Growth growth(plan, out, random);
  growth.run();
  out.picture = print(plan, growth, settings.noise, random);
  out.picture.resolution = 500;
  wipe(settings, out);
  return out;
}

nlohmann::ordered_json truthOf(const SynthSettings &settings, const SynthPrint &print) {
  constexpr int kBlock = 8;
  nlohmann::ordered_json truth = {{"class", kPrintClasses[static_cast<size_t>(settings.printClass)]},
                                  {"seed", settings.seed},
                                  {"width", settings.width},
                                  {"height", settings.height},
                                  {"noise", settings.noise},
                                  {"gap", settings.gap},
                                  {"blockSize", kBlock},
                                  {"rows", settings.height / kBlock},
                                  {"cols", settings.width / kBlock}};
  nlohmann::ordered_json orientations = nlohmann::ordered_json::array();
  nlohmann::ordered_json periods = nlohmann::ordered_json::array();
  for (int row = 0; row < settings.height / kBlock; ++row) {
    nlohmann::ordered_json orientationRow, periodRow;
    for (int column = 0; column < settings.width / kBlock; ++column) {
      const int centre = kBlock / 2;
      const size_t i = static_cast<size_t>((row * kBlock + centre) * settings.width + column * kBlock + centre);
      if (print.period[i] == 0) {
        orientationRow.push_back(nullptr);
        periodRow.push_back(nullptr);
        continue;
      }
      const double degrees = print.orientation[i] * 180 / kPi;
      orientationRow.push_back(std::round(10 * (degrees - 180 * std::round(degrees / 180))) / 10);
      periodRow.push_back(std::round(100 * print.period[i]) / 100);
    }
    orientations.push_back(orientationRow);
    periods.push_back(periodRow);
  }
  truth["orientation"] = orientations;
  truth["period"] = periods;
  return truth;
}

}  // namespace kelm::tools
