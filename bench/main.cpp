// kelmtrova_bench [--recorded FILE] [--write FILE] [FILTER]: times every pair whose name holds FILTER and prints the
// table. The pairs that take longer than in the file of an earlier run are named at the end.
//
// For a counter of instructions around it: --list prints the pairs, --calls N ours|theirs NUMBER calls one side of the
// pair of that number in the list, and measures nothing.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "bench/bench.h"
#include "bench/results.h"

#ifdef KELM_BENCH_OPENCV
#include <opencv2/core.hpp>
#endif

namespace kelm::bench {
namespace {

std::vector<std::function<std::vector<Pair>()>> &registry() {
  static std::vector<std::function<std::vector<Pair>()>> makers;
  return makers;
}

// The CPU time of this thread, not the wall clock: what else runs on the machine then disturbs less.
double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double secondsOf(const std::function<void()> &job, int repetitions) {
  const double start = threadSeconds();
  for (int i = 0; i < repetitions; ++i) {
    job();
  }
  return (threadSeconds() - start) / repetitions;
}

int repetitionsFor(const std::function<void()> &job) {
  job();
  int repetitions = 1;
  while (secondsOf(job, repetitions) * repetitions < 2e-3 && repetitions < (1 << 20)) {
    repetitions *= 2;
  }
  return repetitions;
}

// Interleaved rounds, the one and the other first in turn; the ratio is the median over the rounds, low and high are
// its quartiles.
Result measure(const Pair &pair) {
  constexpr int kRounds = 45;
  const int ours = repetitionsFor(pair.ours);
  const int theirs = repetitionsFor(pair.theirs);
  std::vector<double> ratios;
  std::vector<double> times;
  for (int round = 0; round < kRounds; ++round) {
    const bool theirsFirst = round % 2 == 1;
    const double first = theirsFirst ? secondsOf(pair.theirs, theirs) : secondsOf(pair.ours, ours);
    const double second = theirsFirst ? secondsOf(pair.ours, ours) : secondsOf(pair.theirs, theirs);
    times.push_back(theirsFirst ? second : first);
    ratios.push_back(theirsFirst ? second / first : first / second);
  }
  std::sort(ratios.begin(), ratios.end());
  std::sort(times.begin(), times.end());
  return {pair.name,
          pair.peer,
          ratios[kRounds / 2],
          ratios[kRounds / 4],
          ratios[kRounds - 1 - kRounds / 4],
          times[kRounds / 2] * 1e6,
          pair.aim};
}

void print(const Result &result) {
  const bool held = result.ratio <= result.aim;
  std::printf("%-44s %-40s %8.3f  %7.3f %7.3f %10.2f%s\n", result.name.c_str(), result.peer.c_str(), result.ratio,
              result.low, result.high, result.microseconds, held ? "" : "  above its aim");
  std::fflush(stdout);
}

void summarise(const std::vector<Result> &results) {
  double logSum = 0;
  int count = 0;
  int missed = 0;
  for (const Result &result : results) {
    if (result.aim != kForOrientation) {
      logSum += std::log(result.ratio);
      ++count;
      missed += result.ratio <= result.aim ? 0 : 1;
    }
  }
  if (count > 0) {
    std::printf("%d pairs, geometric mean %.3f, %d above their aim\n", count, std::exp(logSum / count), missed);
  }
}

// Those whose name holds the filter.
std::vector<Pair> chosenPairs(const char *filter) {
  std::vector<Pair> chosen;
  for (const auto &maker : registry()) {
    const std::vector<Pair> pairs = maker();
    std::copy_if(pairs.begin(), pairs.end(), std::back_inserter(chosen),
                 [filter](const Pair &pair) { return std::strstr(pair.name.c_str(), filter) != nullptr; });
  }
  return chosen;
}

// A pair that seems slower is measured again, with buffers at other places: on a busy machine one of many pairs always
// does, and some loops take a tenth longer where their buffers happen to lie badly.
void nameSlower(std::vector<Result> &results, const Results &recorded, const char *filter) {
  constexpr int kTries = 3;
  const auto seemsSlower = [&recorded](const Result &result) {
    const Result *const before = recorded.find(result);
    return before != nullptr && isSlower(result, *before);
  };
  std::vector<std::vector<Pair>> kept;  // so that the next try gets other places
  for (int i = 0; i < kTries && std::any_of(results.begin(), results.end(), seemsSlower); ++i) {
    kept.push_back(chosenPairs(filter));
    for (std::size_t k = 0; k < results.size(); ++k) {
      if (seemsSlower(results[k])) {
        const Result again = measure(kept.back()[k]);
        results[k] = again.ratio < results[k].ratio ? again : results[k];
      }
    }
  }
  for (const Result &result : results) {
    if (seemsSlower(result)) {
      std::printf("slower than recorded: %s, %s: %.3f, was %.3f\n", result.name.c_str(), result.peer.c_str(),
                  result.ratio, recorded.find(result)->ratio);
    }
  }
}

int list() {
  for (const Pair &pair : chosenPairs("")) {
    std::printf("%s\t%s\n", pair.name.c_str(), pair.peer.c_str());
  }
  return 0;
}

int call(int times, const char *side, std::size_t number) {
  const std::vector<Pair> all = chosenPairs("");
  if (number >= all.size()) {
    return 2;
  }
  const auto &job = std::strcmp(side, "ours") == 0 ? all[number].ours : all[number].theirs;
  for (int i = 0; i < times; ++i) {
    job();
  }
  return 0;
}

struct Options {
  const char *recorded = nullptr;
  const char *write = nullptr;
  const char *filter = "";
};

Options optionsFrom(int argc, char **argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--recorded") == 0 && i + 1 < argc) {
      options.recorded = argv[++i];
    } else if (std::strcmp(argv[i], "--write") == 0 && i + 1 < argc) {
      options.write = argv[++i];
    } else {
      options.filter = argv[i];
    }
  }
  return options;
}

int run(const Options &options) {
  Results results;
  std::printf("%-44s %-40s %8s %17s %10s\n", "ours", "peer", "ratio", "quartiles", "us/call");
  for (const Pair &pair : chosenPairs(options.filter)) {
    results.all.push_back(measure(pair));
    print(results.all.back());
  }
  if (options.recorded != nullptr) {
    nameSlower(results.all, Results::read(options.recorded), options.filter);
  }
  summarise(results.all);
  if (options.write != nullptr && !results.write(options.write)) {
    std::fprintf(stderr, "cannot write %s\n", options.write);
    return 1;
  }
  return 0;
}

}  // namespace

Registration::Registration(std::function<std::vector<Pair>()> pairs) { registry().push_back(std::move(pairs)); }

std::string named(const char *what, Size size) {
  return std::string(what) + ' ' + std::to_string(size.height) + " x " + std::to_string(size.width);
}

std::vector<std::uint8_t> ridgePicture(int height, int width, std::uint32_t seed) {
  std::vector<std::uint8_t> image(static_cast<std::size_t>(height) * static_cast<std::size_t>(width));
  std::uint32_t state = seed * 2654435761U + 1;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      state = state * 1664525U + 1013904223U;
      const double radius = std::hypot(x - width * 0.45, (y - height * 0.6) * 0.8);
      const double wave = 128 + 80 * std::sin(radius * 0.7) + (static_cast<double>(state >> 24) - 128) * 0.25;
      image[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)] =
          static_cast<std::uint8_t>(std::clamp(wave, 0.0, 255.0));
    }
  }
  return image;
}

std::vector<std::uint8_t> maskPicture(int height, int width, int specks, std::uint8_t foreground) {
  std::vector<std::uint8_t> mask(static_cast<std::size_t>(height) * static_cast<std::size_t>(width), 0);
  const auto at = [&](int y, int x) -> std::uint8_t & {
    return mask[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
  };
  for (int y = height / 8; y < height - height / 8; ++y) {
    for (int x = width / 8; x < width - width / 8; ++x) {
      at(y, x) = std::hypot(x - width / 2, y - height / 2) < std::min(width, height) * 0.35 ? foreground : 0;
    }
  }
  std::uint32_t state = 12345;
  const auto random = [&state](int below) {
    state = state * 1664525U + 1013904223U;
    return static_cast<int>((state >> 8) % static_cast<std::uint32_t>(below));
  };
  const int count = static_cast<int>(mask.size() / 1000) * specks;
  for (int i = 0; i < count; ++i) {
    const int y = random(height - 3);
    const int x = random(width - 3);
    const std::uint8_t value = random(2) == 0 ? foreground : 0;
    for (int dy = 0; dy <= random(3); ++dy) {
      for (int dx = 0; dx <= random(3); ++dx) {
        at(y + dy, x + dx) = value;
      }
    }
  }
  return mask;
}

}  // namespace kelm::bench

int main(int argc, char **argv) {
  using namespace kelm::bench;
#ifdef KELM_BENCH_OPENCV
  cv::setNumThreads(1);
#endif
  if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
    return list();
  }
  if (argc == 5 && std::strcmp(argv[1], "--calls") == 0) {
    return call(std::atoi(argv[2]), argv[3], static_cast<std::size_t>(std::atoi(argv[4])));
  }
  return run(optionsFrom(argc, argv));
}
