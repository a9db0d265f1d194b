// SPDX-License-Identifier: Apache-2.0
#include "tools/image/steps.h"

#include <kelmtrova/image.h>

#include <algorithm>
#include <memory>

#include "tools/image/npy.h"
#include "tools/image/page.h"

namespace kelm::tools {
namespace {

using Use = std::function<void(const Map &)>;

// A step that shows one map of the analysis.
template <typename MapOf>
RunStep mapStep(CLI::App &command, MapOf mapOf) {
  const auto settings = std::make_shared<AnalysisSettings>();
  command
      .add_option("--window", settings->window, "smoothing window of the gradients, in pixels of the half-size picture")
      ->check(CLI::Range(1, 31))
      ->default_val(settings->window);
  return [settings, mapOf](const Picture &picture, const std::string &name, const Use &use) {
    const Analysis analysis = analyse(picture, name, *settings);
    use(mapOf(analysis));
  };
}

RunStep segment(CLI::App &command) { return mapStep(command, foregroundMap); }
RunStep period(CLI::App &command) { return mapStep(command, periodMap); }
RunStep clarity(CLI::App &command) { return mapStep(command, clarityMap); }
RunStep quality(CLI::App &command) { return mapStep(command, qualityMap); }
RunStep gradients(CLI::App &command) { return mapStep(command, fourGradientsMap); }

RunStep orientation(CLI::App &command) {
  const auto block = std::make_shared<int>(8);
  command.add_option("--block", *block, "edge of a block in pixels")->check(CLI::IsMember({8, 16}))->default_val(8);
  return mapStep(command, [block](const Analysis &analysis) { return orientationMap(analysis, *block == 16); });
}

RunStep histogram(CLI::App &command) {
  const auto smooth = std::make_shared<bool>(false);
  command.add_flag("--smooth", *smooth, "smoothed, in 128 bins of two grey levels");
  return [smooth](const Picture &picture, const std::string &, const Use &use) {
    const Counters counted = histogramOf(picture);
    const Counters counters = *smooth ? smoothedHistogram(counted) : counted;
    const std::vector<uint32_t> bins(counters.begin(), counters.begin() + (*smooth ? 128 : 256));
    constexpr int kWidth = 512, kHeight = 256;
    const auto bars = [&] {
      return drawn(Format::Png, kWidth, kHeight, 1, [&](cairo_t *cairo) {
        fillBox(cairo, 0, 0, kWidth, kHeight, {255, 255, 255});
        drawBars(cairo, bins, kWidth, kHeight, kBlack);
      });
    };
    use({"histogram", "pixels", 0, 1, static_cast<int>(bins.size()), [&] { return encodeNpy(bins, 0, 1, bins.size()); },
         bars});
  };
}

RunStep normalize(CLI::App &command) {
  struct Options {
    int mean = 127, variance = 4000;
  };
  const auto options = std::make_shared<Options>();
  command.add_option("--mean", options->mean, "mean grey level to reach")->check(CLI::Range(0, 255))->default_val(127);
  command.add_option("--variance", options->variance, "variance to reach")
      ->check(CLI::Range(0, 65025))
      ->default_val(4000);
  return [options](const Picture &picture, const std::string &, const Use &use) {
    Picture out = picture;
    ImageNormalize(out.samples.data(), static_cast<uint16_t>(out.height), static_cast<uint16_t>(out.width),
                   static_cast<uint8_t>(options->mean), static_cast<uint32_t>(options->variance));
    use(greyMap("normalized", out));
  };
}

RunStep reduce(CLI::App &) {
  return [](const Picture &picture, const std::string &, const Use &use) { use(greyMap("reduced", reduced(picture))); };
}

RunStep enlarge(CLI::App &) {
  return [](const Picture &picture, const std::string &name, const Use &use) {
    if (picture.samples.size() > kLargestArea / 4 || std::max(picture.width, picture.height) > int{kLongestEdge} / 2) {
      throw PictureError(name + ": the enlarged picture would be too large");
    }
    use(greyMap("enlarged", enlarged(picture)));
  };
}

}  // namespace

const std::vector<Step> &steps() {
  static const std::vector<Step> all = {
      {"segment", nullptr, "The foreground: 255 where the finger is, 0 elsewhere", "print.png -o foreground.png",
       segment},
      {"orientation", nullptr, "The direction of the ridges in degrees, block by block", "print.tif -o orientation.npy",
       orientation},
      {"period", "frequency", "The ridge period in pixels, in cells of 4 x 4 pixels", "print.png -o period.png",
       period},
      {"clarity-map", nullptr, "How clear the ridges are, 0 to 100, in blocks of 8 x 8 pixels",
       "print.png -o clarity.png", clarity},
      {"quality-map", nullptr, "The toolkit's grades of the blocks of 16 x 16 pixels", "print.png -o quality.npy",
       quality},
      {"gradients", nullptr, "Gradient strength (.png, .pgm) or the four direction maps (.npy)",
       "print.png -o directions.npy", gradients},
      {"histogram", nullptr, "How often each grey level occurs", "print.png -o histogram.png", histogram},
      {"normalize", nullptr, "The picture with a given mean and variance", "faint.png -o print.pgm", normalize},
      {"reduce", nullptr, "The picture at half size, smoothed", "print-1000dpi.png -o print-500dpi.png", reduce},
      {"enlarge", nullptr, "The picture at double size", "print.png -o large.png", enlarge},
  };
  return all;
}

}  // namespace kelm::tools
