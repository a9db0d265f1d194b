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

struct TruthCase {
  const char *name, *change;  // the second a step that makes p.png from whole.png
  int scale;                  // of the picture beside the truth: 2 when it was halved
};

// The truth is in blocks of 8 pixels of the print as it was made.
TEST_F(Program, ToolkitFindsTheTruthOfSyntheticPrints) {
  const TruthCase cases[] = {{"arch --noise 0", "normalize --mean 200 --variance 300", 1},
                             {"tented-arch --noise 40", "reduce", 2},
                             {"left-loop --noise 60 --gap 24", "normalize --mean 190 --variance 900", 1},
                             {"right-loop --noise 80", "reduce", 2},
                             {"whorl --noise 20", "normalize --mean 170 --variance 5000", 1}};
  for (const TruthCase &test : cases) {
    SCOPED_TRACE(test.name);
    succeed(std::string("image synth --size 304x400 --truth t.json -o whole.png --class ") + test.name);
    succeed(std::string("image ") + test.change + " whole.png -o p.png");
    succeed("image analyze p.png --maps maps");
    const json truth = json::parse(read("t.json")), list = json::parse(read("maps/maps.json"));
    const size_t rows = truth["rows"], cols = truth["cols"], width = 304 / test.scale;
    EXPECT_EQ(list["scale"], test.scale);
    EXPECT_EQ(list["maps"][1]["cell"], 8 / test.scale);
    const auto directions = samplesOf<int16_t>(raw("maps/orientation8.npy"));
    const auto periods = samplesOf<float>(raw("maps/period.npy"));
    const auto mask = samplesOf<uint8_t>(raw("maps/foreground.npy"));
    ASSERT_EQ(directions.size(), rows * cols);
    ASSERT_EQ(periods.size(), 4 * rows * cols);
    std::vector<double> directionErrors, periodErrors;
    double finger = 0, missed = 0, paper = 0, taken = 0;
    for (size_t row = 0; row < rows; ++row) {
      for (size_t col = 0; col < cols; ++col) {
        const bool inside = !truth["period"][row][col].is_null();
        const bool found = mask[(8 * row + 4) / static_cast<size_t>(test.scale) * width +
                                (8 * col + 4) / static_cast<size_t>(test.scale)] != 0;
        (inside ? finger : paper) += 1;
        missed += inside && !found;
        taken += found && !inside;
        if (!inside || !found) continue;
        const double error =
            std::fmod(std::abs(directions[row * cols + col] - truth["orientation"][row][col].get<double>()), 180);
        directionErrors.push_back(std::min(error, 180 - error));
        const double period = truth["period"][row][col].get<double>() / test.scale;
        periodErrors.push_back(std::abs(periods[(2 * row + 1) * 2 * cols + 2 * col + 1] - period) / period);
      }
    }
    EXPECT_LT(missed, 0.05 * finger);
    EXPECT_LT(taken, 0.05 * paper);
    EXPECT_LT(medianOf(directionErrors), 3);
    EXPECT_LT(medianOf(periodErrors), 0.05);
    // A step gives what the whole analysis gives.
    succeed("image period p.png -o step.npy");
    EXPECT_EQ(read("step.npy"), read("maps/period.npy"));
    succeed("image frequency p.png --format npy -o - > step.npy");
    EXPECT_EQ(read("step.npy"), read("maps/period.npy"));
  }
}

std::string noisePgm(int width, int height) {
  std::string bytes = "P5 " + std::to_string(width) + " " + std::to_string(height) + " 255\n";
  uint32_t state = 1;
  for (int i = 0; i < width * height; ++i) bytes += static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
  return bytes;
}

TEST_F(Program, ClarityIsThatOfTheRidgesNotOfTheInk) {
  const auto analysed = [&](const std::string &name) { return json::parse(run("image analyze --json " + name).out); };
  double before = 101;
  for (const char *noise : {"0", "50", "75", "100"}) {
    succeed(std::string("image synth --class left-loop --seed 3 --size 300x400 -o p.pgm --noise ") + noise);
    succeed("image normalize --mean 210 --variance 400 p.pgm -o faint.pgm");
    const json strong = analysed("p.pgm"), faint = analysed("faint.pgm");
    EXPECT_EQ(strong["finger"], true);
    EXPECT_LT(strong["clarity"], before - 5);
    EXPECT_NEAR(faint["clarity"], strong["clarity"], 5);
    EXPECT_LT(faint["quality"], strong["quality"].get<double>() / 2);
    EXPECT_EQ(strong["continuous"], true);
    before = strong["clarity"];
  }
  EXPECT_GT(before, 20);
  write("noise.pgm", noisePgm(300, 300));
  write("paper.pgm", "P5 300 300 255\n" + std::string(90000, '\xff'));
  for (const char *name : {"noise.pgm", "paper.pgm"}) {
    const json empty = analysed(name);
    EXPECT_EQ(empty["finger"], false);
    EXPECT_LT(empty["clarity"], 10);
    EXPECT_EQ(run(std::string("image analyze ") + name).exitCode, 1);
  }
  // A hard frame does not hide that the ridges of a faint print are narrow.
  succeed("image synth --class whorl --size 300x400 -o p.pgm");
  succeed("image reduce p.pgm -o half.pgm");
  succeed("image normalize --mean 210 --variance 400 half.pgm -o framed.pgm");
  std::string framed = read("framed.pgm");
  for (size_t i = 0, header = framed.size() - 150 * 200; i < 150 * 200; ++i) {
    if (std::min({i % 150, 149 - i % 150, i / 150, 199 - i / 150}) < 4) framed[header + i] = 0;
  }
  write("framed.pgm", framed);
  EXPECT_EQ(analysed("framed.pgm")["scale"], 2);
  // The line of a form above a print is no part of the finger.
  const std::string print = read("p.pgm");
  std::string form(400 * 460, '\xff');
  for (size_t y = 0; y < 400; ++y) print.copy(&form[(y + 50) * 400 + 50], 300, print.size() - 300 * (400 - y));
  for (size_t y = 16; y < 34; ++y) std::fill_n(&form[y * 400 + 10], 380, '\0');
  write("form.pgm", "P5 400 460 255\n" + form);
  EXPECT_NEAR(analysed("form.pgm")["foreground"].get<double>() * 400 * 460,
              analysed("p.pgm")["foreground"].get<double>() * 300 * 400, 1500);
  for (const char *gap : {"24", "60"}) {
    succeed(std::string("image synth --class whorl --size 300x400 --noise 40 -o p.pgm --gap ") + gap);
    EXPECT_EQ(analysed("p.pgm")["continuous"], false) << gap;
  }
}

TEST_F(Program, ResultsGoWhereAndAsTheyAreAsked) {
  succeed("image synth --class arch --size 101x131 -o p.png");
  const struct {
    const char *step, *shape;
  } cases[] = {
      {"segment", "'|u1', 'fortran_order': False, 'shape': (131, 101)"},
      {"orientation --block 16", "'<i2', 'fortran_order': False, 'shape': (9, 7)"},
      {"orientation", "'<i2', 'fortran_order': False, 'shape': (17, 13)"},
      {"period", "'<f4', 'fortran_order': False, 'shape': (33, 26)"},
      {"clarity-map", "'|u1', 'fortran_order': False, 'shape': (17, 13)"},
      {"quality-map", "'|u1', 'fortran_order': False, 'shape': (9, 7)"},
      {"gradients", "'<u2', 'fortran_order': False, 'shape': (4, 33, 26)"},
      {"histogram --smooth", "'<u4', 'fortran_order': False, 'shape': (1, 128)"},
      {"normalize --mean 200", "'|u1', 'fortran_order': False, 'shape': (131, 101)"},
      {"reduce", "'|u1', 'fortran_order': False, 'shape': (65, 50)"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.step);
    succeed(std::string("image ") + test.step + " p.png -o o.npy");
    EXPECT_NE(read("o.npy").find(test.shape), std::string::npos) << read("o.npy").substr(0, 128);
    succeed(std::string("image ") + test.step + " - -o - < p.png > o.png");
    EXPECT_EQ(run("image reduce o.png -o reread.npy").exitCode, 0);
  }
  const std::pair<const char *, const char *> pages[] = {
      {"png", "\x89PNG"}, {"svg", "<?xml"}, {"pdf", "%PDF-"}, {"html", "<!DOCTYPE html>"}};
  for (const auto &[format, start] : pages) {
    succeed(std::string("image analyze p.png -o page.") + format);
    EXPECT_EQ(read(std::string("page.") + format).rfind(start, 0), 0u) << format;
    const Outcome out = run(std::string("image analyze p.png -o - --format ") + format);
    EXPECT_EQ(out.out.rfind(start, 0), 0u) << format;
  }
  EXPECT_NE(run("image analyze p.png").out.find("Ridge clarity"), std::string::npos);
  for (const char *refused : {"analyze p.png -o page.jpg", "segment p.png -o mask", "orientation p.png -o o.pgm",
                              "synth --class arch -o x.jpg", "synth --class arch --seed -1 -o x.png"}) {
    const Outcome outcome = run(std::string("image ") + refused);
    EXPECT_EQ(outcome.exitCode, 2) << refused;
    EXPECT_EQ(outcome.out, "") << refused;
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "x.jpg"));
  for (const char *refused : {"analyze p.png --json -o -", "synth --class arch -o - --truth -",
                              "synth --class arch --count 2 -o -", "quality p.png -o - --resume"}) {
    EXPECT_EQ(run(std::string("image ") + refused).exitCode, 2) << refused;
  }
  EXPECT_EQ(run("image quality p.png -o -").out, run("image quality p.png").out);
  succeed("image synth --class arch --size 101x131 -o q.png --truth truth.json");
  EXPECT_EQ(run("image synth --class arch --size 101x131 -o q.png --truth -").out, read("truth.json"));
  EXPECT_FALSE(std::filesystem::exists(folder / "-"));
  succeed("image synth --class any --count 3 --seed 8 --size 64x64 --format pgm -o set --truth set.jsonl");
  std::istringstream lines(read("set.jsonl"));
  for (const char *name : {"right-loop-8.pgm", "whorl-9.pgm", "arch-10.pgm"}) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(json::parse(line)["path"], name);
    EXPECT_EQ(read(std::string("set/") + name).rfind("P5\n64 64\n255\n", 0), 0u);
  }
}

TEST_F(Program, BatchKeepsTheOrderAndSurvivesBrokenFiles) {
  std::filesystem::create_directories(folder / "prints/deep");
  succeed("image synth --class whorl --size 200x260 -o prints/b.png");
  succeed("image synth --class arch --size 96x96 -o prints/deep/a.pgm");
  write("prints/a broken.png", "PNG?");
  write("prints/notes.txt", "left out");
  std::filesystem::create_symlink("nowhere", folder / "prints/gone.tif");
  const Outcome one = run("image quality prints missing.pgm prints/b.png");
  EXPECT_EQ(one.exitCode, 0);
  EXPECT_EQ(one.err, "kelmtrova: 3 pictures measured, 3 failures, 1 file skipped\n");
  std::istringstream lines(one.out);
  const std::pair<const char *, bool> expected[] = {{"prints/a broken.png", true}, {"prints/b.png", false},
                                                    {"prints/deep/a.pgm", false},  {"prints/gone.tif", true},
                                                    {"missing.pgm", true},         {"prints/b.png", false}};
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
  EXPECT_EQ(shell("printf 'prints\\r\\nmissing.pgm\\r\\nprints/b.png' | kelmtrova image quality -").out, one.out);
  EXPECT_EQ(shell("printf 'prints\\0missing.pgm\\0prints/b.png\\0' | kelmtrova image quality -0 -").out, one.out);
  EXPECT_EQ(run("image quality missing.pgm").exitCode, 2);
  EXPECT_EQ(shell("ulimit -f 0; kelmtrova image quality prints -o all.txt 2>/dev/null").exitCode, 2);
  for (const char *threads : {"0", "2"}) {
    const std::string few = std::string("ASAN_OPTIONS=verify_asan_link_order=0 KELM_THREADS=") + threads +
                            " LD_PRELOAD=" KELM_BUILD_DIR "/tests/few_threads.so ";
    EXPECT_EQ(shell(few + "kelmtrova image quality --jobs 8 prints missing.pgm prints/b.png").out, one.out) << threads;
  }
  EXPECT_EQ(shell("kelmtrova image quality prints >/dev/full").exitCode, 2);
  const std::string csv = run("image quality --csv 'prints/a broken.png' prints/b.png").out;
  EXPECT_EQ(csv.rfind("path,width,height,resolution,scale,finger,clarity,quality,qualitySpread,foreground,period,"
                      "continuous,error\n"
                      "prints/a broken.png,,,,,,,,,,,,not a picture in a format that is known here\n"
                      "prints/b.png,200,260,",
                      0),
            0u)
      << csv;
}

TEST_F(Program, BatchWaitsForItsListAndGoesOnWhereItStopped) {
  succeed("image synth --class any --count 3 --size 96x96 -o prints");
  const Outcome early = shell(
      "mkfifo list; kelmtrova image quality -j 2 - <list >lines & exec 3>list; echo prints/tented-arch-1.png >&3; "
      "for i in $(seq 200); do [ -s lines ] && break; sleep 0.1; done; [ -s lines ] && echo early; "
      "echo prints/left-loop-2.png >&3; exec 3>&-; wait; wc -l <lines");
  EXPECT_EQ(early.out, "early\n2\n") << early.err;
  // A process that decodes and dies takes its picture with it, and nothing else.
  const Outcome killed = shell(
      "rm list; mkfifo list; kelmtrova image quality - <list >lines & exec 3>list; echo prints/tented-arch-1.png >&3; "
      "for i in $(seq 200); do [ -s lines ] && break; sleep 0.1; done; kill -9 $(cat /proc/$!/task/*/children); "
      "echo prints/tented-arch-1.png >&3; echo prints/tented-arch-1.png >&3; exec 3>&-; wait $!; echo $?");
  EXPECT_EQ(killed.out, "0\n") << killed.err;
  EXPECT_EQ(killed.err, "kelmtrova: 2 pictures measured, 1 failure, 0 files skipped\n");
  for (const char *form : {"", "--csv "}) {
    SCOPED_TRACE(form);
    const std::string command = std::string("image quality -o all.txt ") + form;
    succeed(command + "prints");
    const std::string whole = read("all.txt");
    EXPECT_FALSE(std::filesystem::exists(folder / "all.txt.part"));
    // What an interrupted run leaves: a line cut off, after one of a picture that was not there yet.
    write("missing.png", "?");
    succeed(command + "missing.png prints/left-loop-2.png");
    std::filesystem::rename(folder / "all.txt", folder / "all.txt.part");
    std::filesystem::remove(folder / "missing.png");
    write("all.txt.part", read("all.txt.part") + "{\"path\":\"prints/right");
    const Outcome resumed = run(command + "--resume prints");
    EXPECT_EQ(resumed.err, "kelmtrova: 2 pictures measured, 0 failures, 1 file skipped\n");
    EXPECT_EQ(read("all.txt").size(), whole.size());
    EXPECT_EQ(run(command + "--resume prints").err, "kelmtrova: 0 pictures measured, 0 failures, 3 files skipped\n");
    EXPECT_EQ(read("all.txt").size(), whole.size());
  }
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
  EXPECT_NE(outcome.out.find("data-pictures=\"15\""), std::string::npos) << outcome.out.substr(0, 200);
}

}  // namespace
