// SPDX-License-Identifier: Apache-2.0
#include "tools/image/npy.h"

namespace kelm::tools {

std::string npyHeader(const std::string &descr, size_t planes, size_t rows, size_t columns) {
  std::string shape = std::to_string(rows) + ", " + std::to_string(columns);
  if (planes > 0) shape = std::to_string(planes) + ", " + shape;
  std::string dictionary = "{'descr': '" + descr + "', 'fortran_order': False, 'shape': (" + shape + "), }";
  // Ten bytes come before the dictionary; the samples start at a multiple of 64, after a line feed.
  const size_t total = (10 + dictionary.size() + 1 + 63) / 64 * 64;
  dictionary.append(total - 10 - dictionary.size() - 1, ' ');
  dictionary.push_back('\n');
  std::string header("\x93NUMPY\x01\x00", 8);
  header.push_back(static_cast<char>(dictionary.size() & 0xff));
  header.push_back(static_cast<char>(dictionary.size() >> 8));
  return header + dictionary;
}

}  // namespace kelm::tools
