// SPDX-License-Identifier: Apache-2.0
// Everything that the program writes: standard output, lines on standard error, files. What cannot be written to its
// end is a Failure with exit code 2. And small files that it reads whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

#include "tools/text.h"

namespace kelm::tools {

// Standard output, buffered. Both throw when it cannot be written; main() flushes at the end.
void put(std::string_view text);
void flushOutput();

// A whole line on standard error, after what standard output holds by then; `line` is made safe to show. `tone` colours
// it up to its first colon.
void putError(std::string_view line, Tone tone = Tone::kPlain);
// The same for whole lines of our own making: no name from outside is in them.
void putErrorLines(std::string_view lines);

// A line on standard error that is written over again, such as a bar. It goes when a line is printed there.
void showStatusLine(std::string_view line);
void clearStatusLine();
bool isStatusLineShown();

// With --quiet, nothing of the above is written.
void setQuiet(bool quiet);
bool isQuiet();

// JSON as text that a terminal can show: what shown() would replace is escaped, bytes that are no UTF-8 replaced.
// `indent` as nlohmann's dump: 2 for people, -1 for one line.
std::string jsonText(const nlohmann::ordered_json &json, int indent = 2);

// Writes a whole file, or throws and leaves what was there before: the bytes go into a new file beside it that then
// takes its name and keeps its mode. Links are followed; devices and pipes are written in place.
void writeFile(const std::string &path, std::span<const std::uint8_t> bytes);
void writeFile(const std::string &path, std::string_view text);
// Where a file that is to take the name `path` has to be put, links followed; "" where one has to write in place: to
// devices, pipes, and open files behind /dev/stdout and the like.
std::string placeOf(const std::string &path);

// The bytes of a whole file of at most `most`, or a FileFailure.
std::string readWhole(const std::string &path, std::size_t most);

}  // namespace kelm::tools
