// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/image/picture.h"
#include "tools/image/worker.h"
#include "tools/image/wsq.h"

namespace kelm::tools {
namespace {

// A file that closes itself; standard input stays open.
class Source {
 public:
  explicit Source(const std::string &path)
      : descriptor(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~Source() {
    if (descriptor > STDIN_FILENO) close(descriptor);
  }
  Source(const Source &) = delete;
  Source &operator=(const Source &) = delete;
  const int descriptor;
};

std::vector<uint8_t> readFile(const std::string &path) {
  const Source source(path);
  if (source.descriptor < 0) throw PictureError(path + ": " + strerror(errno));
  std::vector<uint8_t> bytes;
  size_t length = 0;
  for (;;) {
    if (length == bytes.size()) bytes.resize(length + std::clamp<size_t>(length, 1 << 16, 1 << 23));
    const ssize_t got = read(source.descriptor, bytes.data() + length, bytes.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw PictureError(path + ": " + strerror(errno));
    if (got == 0) break;
    length += static_cast<size_t>(got);
    if (length > kLargestFile) throw PictureError(path + ": the file is too large for a picture");
  }
  bytes.resize(length);
  return bytes;
}

Picture fromWsq(const std::vector<uint8_t> &bytes) {
  try {
    WsqPicture decoded = decodeWsq(bytes, kLongestEdge, kLargestArea);
    Picture picture;
    picture.width = decoded.width;
    picture.height = decoded.height;
    picture.resolution = decoded.pixelsPerInch;
    picture.samples = std::move(decoded.samples);
    return picture;
  } catch (const WsqError &error) {
    throw PictureError(std::string("the WSQ picture cannot be read: ") + error.what());
  }
}

}  // namespace

Picture readPicture(const std::string &path) {
  const std::vector<uint8_t> bytes = readFile(path);
  try {
    if (looksLikePgm(bytes)) return decodePgm(bytes);
    if (looksLikeWsq(bytes)) return fromWsq(bytes);
    return decodeApart(bytes);
  } catch (const PictureError &error) {
    throw PictureError((path == "-" ? "standard input" : path) + ": " + error.what());
  }
}

}  // namespace kelm::tools
