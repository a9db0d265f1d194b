// SPDX-License-Identifier: Apache-2.0
// Raw numbers for numpy and its friends: the .npy format, version 1.0.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace kelm::tools {

// The header of an array of rows x columns (planes = 0), or planes x rows x columns, of samples of the type `descr`.
std::string npyHeader(const std::string &descr, size_t planes, size_t rows, size_t columns);

// A whole file: the header and the samples as they lie in memory.
template <typename Sample>
std::vector<uint8_t> encodeNpy(const std::vector<Sample> &samples, size_t planes, size_t rows, size_t columns) {
  static_assert(std::endian::native == std::endian::little || sizeof(Sample) == 1);
  const std::string descr = std::string(sizeof(Sample) == 1 ? "|" : "<") +
                            (std::is_floating_point_v<Sample> ? 'f'
                             : std::is_signed_v<Sample>       ? 'i'
                                                              : 'u') +
                            std::to_string(sizeof(Sample));
  const std::string header = npyHeader(descr, planes, rows, columns);
  std::vector<uint8_t> bytes(header.begin(), header.end());
  const auto *raw = reinterpret_cast<const uint8_t *>(samples.data());
  bytes.insert(bytes.end(), raw, raw + samples.size() * sizeof(Sample));
  return bytes;
}

}  // namespace kelm::tools
