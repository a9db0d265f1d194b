// SPDX-License-Identifier: Apache-2.0
// Commands and status words as people call them: for the traces of devices/ and the messages of tools/.
#ifndef KELMTROVA_APDU_NAMES_H
#define KELMTROVA_APDU_NAMES_H

#include <cstdint>
#include <span>
#include <string>

namespace kelm::apdu {

// "select file 0520, the template index"; "unknown command" for one that this system does not have.
std::string commandName(std::span<const std::uint8_t> command);

// "no match, 2 tries left"; "" for a status that means nothing by itself.
std::string statusWords(std::uint16_t status);

// Whether the data of a command with this instruction, under any class, is a PIN.
bool carriesPin(std::uint8_t instruction);

}  // namespace kelm::apdu

#endif
