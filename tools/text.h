// SPDX-License-Identifier: Apache-2.0
// Text for people: names from outside made safe to show, numbers of things, hexadecimal, fields of CSV, colours.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace kelm::tools {

// `text` as a terminal may see it: each control character (line ends too), each character that changes the direction of
// writing and each byte that is not UTF-8 becomes "?". Every name from outside goes through here, once or more often.
std::string shown(std::string_view text);

// The bytes of the UTF-8 character that `text`, which is not empty, begins with; 0 when it begins with none, or with
// one that shown() replaces.
std::size_t shownLength(std::string_view text);

// The columns that `text` takes on a terminal, as far as the C library's locale knows the characters' widths.
std::size_t columnsOf(std::string_view text);

// "1 slot", "2 slots".
std::string counted(std::size_t number, std::string_view thing);

// "3CFF", or with a separator "3C FF".
std::string hex(std::span<const std::uint8_t> bytes, std::string_view separator = "");

// One field of a CSV line after RFC 4180: quoted where it must be. A text that a spreadsheet could take for a formula
// (it begins with = + - @, tab or carriage return) gets an apostrophe before it; numbers are not to be passed here.
std::string csvField(std::string_view text);

// Whether the stream is a terminal that knows what control sequences mean.
bool isControllable(int stream);

// How a line is meant; shown in colour where standard output (or error) is a terminal that wants colours.
enum class Tone { kPlain, kGood, kBad };
std::string toned(std::string_view line, Tone tone, int stream);

}  // namespace kelm::tools
