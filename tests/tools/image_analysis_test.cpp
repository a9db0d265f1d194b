// SPDX-License-Identifier: Apache-2.0
// Synthetic prints, and what the toolkit finds in them.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>
#include <vector>

#include "tests/tools/program.h"

namespace {

using nlohmann::json;

uint64_t fnv(const std::string &bytes) {
  uint64_t hash = 0xcbf29ce484222325u;
  for (const char byte : bytes) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3u;
  return hash;
}

double medianOf(std::vector<double> values) {
  EXPECT_FALSE(values.empty());
  std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

template <typename Sample>
std::vector<Sample> samplesOf(const std::string &bytes) {
  std::vector<Sample> samples(bytes.size() / sizeof(Sample));
  memcpy(samples.data(), bytes.data(), samples.size() * sizeof(Sample));
  return samples;
}

TEST_F(Program, SameSeedSameBytes) {
  succeed("image synth --class whorl --seed 7 --size 120x160 --noise 40 -o a.pgm");
  EXPECT_EQ(fnv(read("a.pgm")), 0x77e55f8b6348139eu);
  succeed("image synth --class arch --seed 7 --size 120x160 --noise 40 -o b.pgm");
  EXPECT_EQ(fnv(read("b.pgm")), 0x4982276fd9500992u);
}

// The truth is in blocks of 8 pixels; periods come for cells of 4, upright and in pixels.
TEST_F(Program, ToolkitFindsTheTruthOfSyntheticPrints) {
  for (const char *printClass : {"arch", "tented-arch", "left-loop", "right-loop", "whorl"}) {
    SCOPED_TRACE(printClass);
    succeed(std::string("image synth --size 420x556 --truth t.json -o p.png --class ") + printClass);
    for (const char *step : {"orientation", "frequency", "segment"})
      succeed(std::string("image ") + step + " p.png -o " + step + ".npy");
    const json truth = json::parse(read("t.json"));
    const auto directions = samplesOf<int16_t>(raw("orientation.npy"));
    const auto periods = samplesOf<float>(raw("frequency.npy"));
    const auto mask = samplesOf<uint8_t>(raw("segment.npy"));
    const size_t rows = truth["rows"], cols = truth["cols"];
    ASSERT_EQ(directions.size(), rows * cols);
    ASSERT_EQ(periods.size(), 2 * rows * 105);
    std::vector<double> directionErrors, periodErrors;
    double inside = 0, shared = 0, covered = 0;
    for (size_t row = 0; row < rows; ++row) {
      for (size_t col = 0; col < cols; ++col) {
        const bool foreground = mask[(8 * row + 4) * 420 + 8 * col + 4] != 0;
        const bool finger = !truth["period"][row][col].is_null();
        inside += finger;
        covered += foreground;
        if (!finger || !foreground) continue;
        ++shared;
        const double error =
            std::fmod(std::abs(directions[row * cols + col] - truth["orientation"][row][col].get<double>()), 180);
        directionErrors.push_back(std::min(error, 180 - error));
        const double period = truth["period"][row][col];
        const double found = periods[(2 * row + 1) * 105 + 2 * col + 1];
        if (found > 0) periodErrors.push_back(std::abs(found - period) / period);
      }
    }
    EXPECT_GT(shared, 0.85 * inside);
    EXPECT_GT(shared, 0.97 * covered);
    EXPECT_GT(static_cast<double>(periodErrors.size()), 0.95 * shared);
    EXPECT_LT(medianOf(directionErrors), 4);
    EXPECT_LT(medianOf(periodErrors), 0.10);
  }
}

TEST_F(Program, AnalysesPrintsOfBothResolutions) {
  succeed("image synth --class left-loop --seed 3 -o p.png");
  const Outcome full = run("image analyze p.png --json -o sheet.png");
  ASSERT_EQ(full.exitCode, 0) << full.err;
  EXPECT_EQ(read("sheet.png").substr(1, 3), "PNG");
  const json numbers = json::parse(full.out);
  EXPECT_EQ(numbers["scale"], 1);
  EXPECT_NEAR(numbers["period"], 9.2, 0.8);
  EXPECT_NEAR(numbers["foreground"], 0.67, 0.05);
  EXPECT_EQ(numbers["continuous"], true);
  EXPECT_GT(numbers["quality"], 150);

  succeed("image reduce p.png -o half.png");
  const json half = json::parse(run("image analyze half.png --json").out);
  EXPECT_EQ(half["scale"], 2);
  EXPECT_NEAR(half["period"], numbers["period"].get<double>() / 2, 0.5);
  EXPECT_NEAR(half["foreground"], numbers["foreground"], 0.05);

  EXPECT_EQ(run("image analyze p.png").exitCode, 2);
  EXPECT_EQ(run("image analyze p.png -o report.pdf").exitCode, 2);
}

TEST_F(Program, SingleStepsWriteWhatTheyName) {
  succeed("image synth --class arch --size 100x130 -o p.png");
  const struct {
    const char *step;
    const char *shape;
  } cases[] = {
      {"segment", "'|u1', 'fortran_order': False, 'shape': (130, 100)"},
      {"orientation --block 16", "'<i2', 'fortran_order': False, 'shape': (9, 7)"},
      {"frequency", "'<f4', 'fortran_order': False, 'shape': (32, 25)"},
      {"quality-map", "'|u1', 'fortran_order': False, 'shape': (8, 6)"},
      {"gradients", "'<u2', 'fortran_order': False, 'shape': (4, 32, 25)"},
      {"histogram --smooth", "'<u4', 'fortran_order': False, 'shape': (1, 128)"},
      {"normalize --mean 200", "'|u1', 'fortran_order': False, 'shape': (130, 100)"},
      {"reduce", "'|u1', 'fortran_order': False, 'shape': (65, 50)"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.step);
    succeed(std::string("image ") + test.step + " p.png -o o.npy");
    EXPECT_NE(read("o.npy").find(test.shape), std::string::npos) << read("o.npy").substr(0, 128);
    EXPECT_EQ(read("o.npy").size() % 2, 0u);
    succeed(std::string("image ") + test.step + " p.png -o o.png");
    EXPECT_EQ(run("image reduce o.png -o reread.npy").exitCode, 0);
  }
}

TEST_F(Program, BatchKeepsTheOrderAndSurvivesBrokenFiles) {
  std::filesystem::create_directories(folder / "prints/deep");
  succeed("image synth --class whorl --size 200x260 -o prints/b.png");
  succeed("image synth --class arch --size 96x96 -o prints/deep/a.pgm");
  write("prints/a broken.png", "PNG?");
  write("prints/notes.txt", "left out");
  const Outcome one = run("image quality prints missing.pgm prints/b.png");
  EXPECT_EQ(one.exitCode, 2);
  EXPECT_EQ(one.err, "");
  std::istringstream lines(one.out);
  const std::pair<const char *, bool> expected[] = {{"prints/a broken.png", true},
                                                    {"prints/b.png", false},
                                                    {"prints/deep/a.pgm", false},
                                                    {"missing.pgm", true},
                                                    {"prints/b.png", false}};
  std::string line;
  for (const auto &[path, broken] : expected) {
    ASSERT_TRUE(std::getline(lines, line));
    const json record = json::parse(line);
    EXPECT_EQ(record["path"], path);
    EXPECT_EQ(record["error"].is_null(), !broken) << line;
    EXPECT_EQ(record["quality"].is_number(), !broken) << line;
  }
  EXPECT_FALSE(std::getline(lines, line));
  EXPECT_EQ(run("image quality --jobs 4 prints missing.pgm prints/b.png").out, one.out);
  EXPECT_EQ(shell("printf 'prints\\nmissing.pgm\\nprints/b.png\\n' | kelmtrova image quality -").out, one.out);
  const std::string csv = run("image quality --csv 'prints/a broken.png' prints/b.png").out;
  EXPECT_EQ(csv.rfind("path,width,height,quality,foreground,period,continuity,error\n"
                      "prints/a broken.png,,,,,,,\"not a PNG, WSQ or PGM (P2 or P5) picture\"\n"
                      "prints/b.png,200,260,",
                      0),
            0u)
      << csv;
}

// The page's script counts the pictures that the browser could show, and says which overlay lies over the print.
TEST_F(Program, PageWorksInABrowser) {
  succeed("image synth --class whorl --size 200x260 -o 'a<b>.png'");
  succeed("image analyze 'a<b>.png' -o report.html");
  const std::string page = read("report.html");
  EXPECT_EQ(page.find("://"), std::string::npos) << "something would be fetched";
  EXPECT_NE(page.find("<title>a&lt;b&gt;.png</title>"), std::string::npos);
  if (shell("command -v chromium").exitCode != 0) GTEST_SKIP() << "no chromium here: the page was not opened";
  const Outcome outcome = shell(
      "timeout 100 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-sync "
      "--disable-background-networking --disable-component-update --user-data-dir=\"$PWD/profile\" --dump-dom "
      "\"file://$PWD/report.html#period\"");
  EXPECT_NE(outcome.out.find("data-overlay=\"period\""), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.out.find("data-pictures=\"8\""), std::string::npos) << outcome.out.substr(0, 200);
}

}  // namespace
