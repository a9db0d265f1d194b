// SPDX-License-Identifier: Apache-2.0
// Names of commands and status words.
#ifndef KELMTROVA_DEVICES_TRACE_NAMES_H
#define KELMTROVA_DEVICES_TRACE_NAMES_H

#include <cstdint>
#include <span>
#include <string>

namespace kelm::trace {

using ByteView = std::span<const std::uint8_t>;

// "select file 0520, the template index"; "unknown command" for one that this system does not have.
std::string commandName(ByteView command);

// "" for a status that means nothing by itself.
std::string statusWords(std::uint16_t status);

}  // namespace kelm::trace

#endif
