// SPDX-License-Identifier: Apache-2.0
// Ridge frequency.
//
// A profile sample is a mean of five points that depends only on the pixel and on the direction's span, and all
// directions together have six spans. So the means are computed first, side by side, with a plane for each span in use,
// and a profile takes 33 reads from a plane instead of 165 from the image. The planes hold one band of the image at a
// time, to stay in the cache, and of that band only the strips that some profile reaches. Samples too near the image's
// border are computed point by point.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/ridge/crossing.h"
#include "image/ridge/period.h"
#include "image/support/arguments.h"
#include "image/support/blocks.h"
#include "image/support/buffer.h"
#include "image/support/kernel.h"
#include "image/support/words.h"
#include "kelmtrova/image.h"

namespace kelm::image {
namespace {

constexpr int kCell = 4;
constexpr int kBlock = 8;
constexpr int kSpanReach = 2;  // no point of a span lies further away
constexpr int kBandBlocks = 8;
constexpr int kBandRows = kBandBlocks * kBlock + 2 * kProfileReach;
constexpr int kReadAhead = 8;  // two cells are read as one 64-bit word
constexpr int kBlockCells = 4;
constexpr int kBatchBlocks = kPeriodLanes / kBlockCells;
constexpr int kMostBlocks = INT16_MAX / kBlock + 1;
constexpr int kStrip = 64;
constexpr int kMostStrips = INT16_MAX / kStrip + 1;
constexpr int kMostSpans = 8;  // six occur

struct Picture {
  const std::uint8_t *pixels;
  int height, width;
  int cellRows, cellCols;
  int blockRows, blockCols;  // blocks that hold a cell
};

// Five-point means of the rows first to end - 1, in those strips of kStrip columns that are held.
struct MeanPlane {
  RidgeSpan span;
  std::uint8_t *means;
  int first, end;
  bool held[kMostStrips];
};

struct Workspace {
  // For each direction that occurs in the field: where its profiles are sampled, from the cell's first pixel, and which
  // plane holds the means.
  Crossing crossing[kWholeDegrees];
  std::int32_t offsets[kWholeDegrees][kProfileSamples];
  std::uint8_t plane[kWholeDegrees];

  MeanPlane planes[kMostSpans];
  int planeCount;
  bool needed[kMostSpans][kMostStrips];   // strips of the planes that the present band reaches
  std::uint8_t pending[kMostBlocks];      // direction of each block of the present row that is not yet sampled
  std::uint8_t profile[kProfileSamples];  // of the cell visited last
};

int directionOf(const FingerprintBlockField *field, int by, int bx) {
  const int row = field->rows - 1 - std::min<int>(by, field->rows - 1);
  const int col = std::min<int>(bx, field->cols - 1);
  return foldDirection(field->data[static_cast<std::ptrdiff_t>(row) * field->cols + col]);
}

int planeOf(Workspace *workspace, const RidgeSpan &span) {
  int i = 0;
  while (i < workspace->planeCount && !(workspace->planes[i].span == span)) {
    ++i;
  }
  if (i == workspace->planeCount) {
    workspace->planes[i].span = span;
    ++workspace->planeCount;
  }
  return i;
}

void makeCrossings(Workspace *workspace, const Picture &picture, const FingerprintBlockField *field) {
  for (int by = 0; by < std::min<int>(picture.blockRows, field->rows); ++by) {
    for (int bx = 0; bx < std::min<int>(picture.blockCols, field->cols); ++bx) {
      const int d = directionOf(field, by, bx);
      Crossing *crossing = &workspace->crossing[d];
      if (!crossing->known) {
        makeCrossing(crossing, d);
        workspace->plane[d] = static_cast<std::uint8_t>(planeOf(workspace, crossing->span));
        for (int i = 0; i < kProfileSamples; ++i) {
          workspace->offsets[d][i] = crossing->dy[i] * picture.width + crossing->dx[i];
        }
      }
    }
  }
}

KELM_INLINE void fiveMeansOf(std::uint8_t *__restrict means, const std::uint8_t *__restrict pixels, std::size_t count,
                             std::ptrdiff_t near, std::ptrdiff_t far) {
  constexpr std::uint32_t kFifth = 13108;  // 2^16 / 5, rounded up: exact for sums up to 5 x 255
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t *const p = pixels + i;
    const auto sum = static_cast<std::uint16_t>(p[0] + p[near] + p[-near] + p[far] + p[-far]);
    means[i] = static_cast<std::uint8_t>(sum * kFifth >> 16);
  }
}

// The means of a part of the image, whose rows lie `width` apart as those of the image do.
KELM_INLINE void fiveMeansBody(std::uint8_t *means, const std::uint8_t *pixels, std::ptrdiff_t width,
                               std::ptrdiff_t rows, std::size_t cols, const RidgeSpan &span) {
  const std::ptrdiff_t near = span.v1 * width + span.u1;
  const std::ptrdiff_t far = span.v2 * width + span.u2;
  for (; rows > 0; --rows, means += width, pixels += width) {
    inBlocks<32>(cols, [=](std::size_t first, std::size_t count)
                           KELM_INLINE_LAMBDA { fiveMeansOf(means + first, pixels + first, count, near, far); });
  }
}
constexpr auto fiveMeans = kernel<fiveMeansBody>;

// Makes the plane hold the rows `first` to `end` - 1 of the strips that are needed. Pixels next to the
// border lack some of the five points.
void holdRows(MeanPlane *plane, const Picture &picture, const bool *needed, int first, int end) {
  const std::ptrdiff_t width = picture.width;
  const int strips = (picture.width + kStrip - 1) / kStrip;
  first = std::max(first, kSpanReach);
  end = std::min(end, picture.height - kSpanReach);
  if (first >= end || width <= 2 * kSpanReach) {
    return;
  }
  int kept = 0;
  if (plane->first <= first && first < plane->end) {
    kept = plane->end - first;
    std::memmove(plane->means, plane->means + (first - plane->first) * width, static_cast<std::size_t>(kept * width));
  }
  for (int s = 0; s < strips;) {
    const int start = s;
    const int done = plane->held[s] ? kept : 0;
    while (s < strips && needed[s] == needed[start] && plane->held[s] == plane->held[start]) {
      ++s;
    }
    const int left = std::max(start * kStrip, kSpanReach);
    const int right = std::min(s * kStrip, picture.width - kSpanReach);
    if (needed[start] && left < right) {
      fiveMeans(plane->means + done * width + left, picture.pixels + (first + done) * width + left, width,
                end - first - done, static_cast<std::size_t>(right - left), plane->span);
    }
  }
  std::memcpy(plane->held, needed, sizeof plane->held);
  plane->first = first;
  plane->end = end;
}

struct Sample {
  bool inside;  // at least one of the five points lies in the image
  std::uint8_t mean;
};

Sample samplePoints(const Picture &picture, const RidgeSpan &span, int x, int y) {
  const int points[5][2] = {{x, y},
                            {x + span.u1, y + span.v1},
                            {x - span.u1, y - span.v1},
                            {x + span.u2, y + span.v2},
                            {x - span.u2, y - span.v2}};
  int sum = 0;
  int count = 0;
  for (const auto &[px, py] : points) {
    if (static_cast<unsigned>(px) < static_cast<unsigned>(picture.width) &&
        static_cast<unsigned>(py) < static_cast<unsigned>(picture.height)) {
      sum += picture.pixels[static_cast<std::ptrdiff_t>(py) * picture.width + px];
      ++count;
    }
  }
  return {count > 0, static_cast<std::uint8_t>(count > 0 ? sum / count : 0)};
}

struct Range {
  int first, end;
};

// Shortens a range of a profile's samples to those at least `margin` pixels inside the image. They lie on a line, more
// or less, so these are neighbours.
Range shorten(Range range, const Picture &picture, const Crossing &crossing, int x, int y, int margin) {
  const auto beyond = [&](int i) {
    const int px = x + crossing.dx[i];
    const int py = y + crossing.dy[i];
    return px < margin || px >= picture.width - margin || py < margin || py >= picture.height - margin;
  };
  while (range.first < range.end && beyond(range.first)) {
    ++range.first;
  }
  while (range.first < range.end && beyond(range.end - 1)) {
    --range.end;
  }
  return range;
}

// The profiles of a block row. A block's four cells are neighbouring lanes: upper left, upper right, lower left, lower
// right.
std::uint8_t *profileOf(ProfileBatch *batches, int bx, int cell) {
  return &batches[bx / kBatchBlocks].samples[0][bx % kBatchBlocks * kBlockCells + cell];
}

// All cells of a block have five points inside the image everywhere.
bool isInterior(const Picture &picture, const Crossing &crossing, int x, int y) {
  return x + crossing.minX >= kSpanReach && x + kCell + crossing.maxX < picture.width - kSpanReach &&
         y + crossing.minY >= kSpanReach && y + kCell + crossing.maxY < picture.height - kSpanReach;
}

// Two cells side by side of each of two rows, in the order of lanes.
inline void putCells(std::uint8_t *lanes, const std::uint8_t *upper, const std::uint8_t *lower) {
  constexpr std::uint64_t kCells = 0x000000FF000000FFU;
  const std::uint64_t first = loadWord<std::uint64_t>(upper) & kCells;
  const std::uint64_t second = loadWord<std::uint64_t>(lower) & kCells;
  const std::uint64_t apart = first | second << 16;  // each in the low byte of 16 bits
  storeWord(lanes, static_cast<std::uint32_t>(apart | apart >> 24));
}

KELM_INLINE void sampleBlock(std::uint8_t *profiles, const std::uint8_t *means, const std::int32_t *offsets,
                             int width) {
  const std::uint8_t *below = means + std::ptrdiff_t{kCell} * width;
  for (int i = 0; i < kProfileSamples; ++i) {
    putCells(profiles + i * kPeriodLanes, means + offsets[i], below + offsets[i]);
  }
}

// A profile among others.
struct Lane {
  std::uint8_t *samples;
  int stride;
  std::uint8_t &operator[](int i) const { return samples[i * stride]; }
};

// One cell near the border: a sample without a point inside takes the value that it has in the previous profile.
void sampleCell(Lane profile, Lane previous, const Picture &picture, const Workspace &workspace, int d, int x, int y) {
  const Crossing &crossing = workspace.crossing[d];
  const MeanPlane &plane = workspace.planes[workspace.plane[d]];
  const Range some = shorten({0, kProfileSamples}, picture, crossing, x, y, -kSpanReach);
  const Range whole = shorten(some, picture, crossing, x, y, kSpanReach);
  const std::ptrdiff_t cell = static_cast<std::ptrdiff_t>(y - plane.first) * picture.width + x;
  const std::uint8_t *const means = plane.means;
  const std::int32_t *const offsets = workspace.offsets[d];
  const auto nearBorder = [&](int first, int end) {
    for (int i = first; i < end; ++i) {
      const bool reached = i >= some.first && i < some.end;
      const Sample sample =
          reached ? samplePoints(picture, crossing.span, x + crossing.dx[i], y + crossing.dy[i]) : Sample{false, 0};
      profile[i] = sample.inside ? sample.mean : previous[i];
    }
  };
  nearBorder(0, whole.first);
  for (int i = whole.first; i < whole.end; ++i) {
    profile[i] = means[cell + offsets[i]];
  }
  nearBorder(whole.end, kProfileSamples);
}

// The profiles of a block row: blocks away from the border in any order, then the other cells in the order of visits,
// because a sample without a point inside the image keeps the value of the cell before. Inlined where it is called, it
// takes a twentieth longer.
[[gnu::noinline]] void sampleBlockRow(ProfileBatch *batches, Workspace *workspace, const Picture &picture,
                                      const FingerprintBlockField *field, int by) {
  constexpr std::uint8_t kSampled = kWholeDegrees;  // in place of the direction
  std::uint8_t *const pending = workspace->pending;
  const int y = by * kBlock;
  for (int bx = 0; bx < picture.blockCols; ++bx) {
    const int d = directionOf(field, by, bx);
    pending[bx] = static_cast<std::uint8_t>(d);
    if (isInterior(picture, workspace->crossing[d], bx * kBlock, y)) {
      const MeanPlane &plane = workspace->planes[workspace->plane[d]];
      sampleBlock(profileOf(batches, bx, 0),
                  plane.means + static_cast<std::ptrdiff_t>(y - plane.first) * picture.width + bx * kBlock,
                  workspace->offsets[d], picture.width);
      pending[bx] = kSampled;
    }
  }
  const auto laneOf = [batches](int cy, int cx) {
    return Lane{profileOf(batches, cx / 2, cy % 2 * 2 + cx % 2), kPeriodLanes};
  };
  Lane previous = {workspace->profile, 1};
  for (int cy = 2 * by; cy < std::min(2 * by + 2, picture.cellRows); ++cy) {
    for (int cx = 0; cx < picture.cellCols; ++cx) {
      const Lane profile = laneOf(cy, cx);
      if (pending[cx / 2] != kSampled) {
        sampleCell(profile, previous, picture, *workspace, pending[cx / 2], cx * kCell, cy * kCell);
      }
      previous = profile;
    }
  }
  for (int i = 0; i < kProfileSamples; ++i) {
    workspace->profile[i] = previous[i];
  }
}

void storePeriods(std::uint8_t *map, const ProfileBatch *batches, const Picture &picture, int by) {
  std::uint8_t values[kPeriodLanes];
  for (int bx = 0; bx < picture.blockCols; ++bx) {
    const int lane = bx % kBatchBlocks * kBlockCells;
    if (lane == 0) {
      ridgePeriods(values, &batches[bx / kBatchBlocks]);
    }
    for (int c = 0; c < kBlockCells; ++c) {
      const int cx = 2 * bx + c % 2;
      const int cy = 2 * by + c / 2;
      if (cx < picture.cellCols && cy < picture.cellRows) {
        map[static_cast<std::ptrdiff_t>(cy) * picture.cellCols + cx] = values[lane + c];
      }
    }
  }
}

// Of every plane, the strips that the profiles of these block rows reach.
void holdBand(Workspace *workspace, const Picture &picture, const FingerprintBlockField *field, int firstBlock,
              int endBlock) {
  auto &needed = workspace->needed;
  std::memset(needed, 0, sizeof needed);
  for (int by = firstBlock; by < endBlock; ++by) {
    for (int bx = 0; bx < picture.blockCols; ++bx) {
      const int d = directionOf(field, by, bx);
      const Crossing &crossing = workspace->crossing[d];
      const int left = std::max(bx * kBlock + crossing.minX, 0);
      const int right = std::min(bx * kBlock + kCell + crossing.maxX, picture.width - 1);
      for (int s = left / kStrip; s <= right / kStrip; ++s) {
        needed[workspace->plane[d]][s] = true;
      }
    }
  }
  for (int i = 0; i < workspace->planeCount; ++i) {
    holdRows(&workspace->planes[i], picture, needed[i], firstBlock * kBlock - kProfileReach,
             endBlock * kBlock + kProfileReach);
  }
}

std::int32_t fillFrequencyMap(std::uint8_t *map, const Picture &picture, const FingerprintBlockField *field) {
  const Buffer<Workspace> workspace = allocateZeroed<Workspace>(1);
  if (!workspace) {
    return KELM_IMAGE_NO_MEMORY;
  }
  makeCrossings(workspace.get(), picture, field);
  const std::size_t batchCount = static_cast<std::size_t>((picture.blockCols + kBatchBlocks - 1) / kBatchBlocks);
  const std::size_t planeSize =
      static_cast<std::size_t>(std::min(kBandRows, picture.height)) * static_cast<std::size_t>(picture.width) +
      kReadAhead;
  const Buffer<ProfileBatch> batches = allocateZeroed<ProfileBatch>(batchCount);
  const Buffer<std::uint8_t> means =
      allocate<std::uint8_t>(planeSize * static_cast<std::size_t>(workspace[0].planeCount));
  if (!batches || !means) {
    return KELM_IMAGE_NO_MEMORY;
  }
  for (int i = 0; i < workspace[0].planeCount; ++i) {
    workspace[0].planes[i].means = means.get() + planeSize * static_cast<std::size_t>(i);
  }
  for (int by = 0; by < picture.blockRows; ++by) {
    if (by % kBandBlocks == 0) {
      holdBand(workspace.get(), picture, field, by, std::min(by + kBandBlocks, picture.blockRows));
    }
    sampleBlockRow(batches.get(), workspace.get(), picture, field, by);
    storePeriods(map, batches.get(), picture, by);
  }
  return KELM_IMAGE_OK;
}

}  // namespace
}  // namespace kelm::image

int32_t FpGetFrequency(const uint8_t *image, int16_t height, int16_t width, const FingerprintBlockField *field,
                       uint8_t **map) {
  using namespace kelm::image;
  if (!isImage(image, height, width) || field == nullptr || map == nullptr ||
      !isImage(field->data, field->rows, field->cols)) {
    return KELM_IMAGE_BAD_ARGUMENT;
  }
  const int cellRows = height / kCell;
  const int cellCols = width / kCell;
  const std::size_t cells = sampleCount(cellRows, cellCols);
  *map = allocate<std::uint8_t>(cells).release();
  if (*map == nullptr) {
    return KELM_IMAGE_NO_MEMORY;
  }
  std::memset(*map, kNoPeriod, cells);
  if (cells == 0) {
    return KELM_IMAGE_OK;
  }
  const Picture picture = {image, height, width, cellRows, cellCols, (cellRows + 1) / 2, (cellCols + 1) / 2};
  return fillFrequencyMap(*map, picture, field);
}
