// SPDX-License-Identifier: Apache-2.0
#include "tools/text.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>

namespace kelm::tools {

namespace {

struct Range {
  char32_t first, last;
};

// What moves the cursor, changes colours or turns the direction of writing.
constexpr Range kNeverShown[] = {
    {0x00, 0x1F},        // C0 controls
    {0x7F, 0x9F},        // delete and the C1 controls
    {0x061C, 0x061C},    // Arabic letter mark
    {0x200E, 0x200F},    // left-to-right and right-to-left marks
    {0x2028, 0x202E},    // line and paragraph separator, embeddings and overrides
    {0x2066, 0x2069},    // isolates
    {0xFEFF, 0xFEFF},    // byte order mark
    {0xFFF9, 0xFFFB},    // interlinear annotation
    {0xE0000, 0xE007F},  // tags
};

struct Character {
  char32_t value = 0;
  std::size_t length = 0;  // 0: not UTF-8
};

Character decode(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // shorter forms are overlong
  const unsigned char first = at(0);
  if (first < 0x80) return {first, 1};
  const std::size_t length = first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF8 ? 4 : 0;
  if (length == 0 || text.size() < length) return {};
  char32_t value = first & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0) != 0x80) return {};
    value = value << 6 | (at(i) & 0x3F);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < kLeast[length] || value > 0x10FFFF || surrogate) return {};
  return {value, length};
}

std::string_view variable(const char *name) {
  const char *value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

std::size_t shownLength(std::string_view text) {
  const Character character = decode(text);
  const bool hidden = std::any_of(std::begin(kNeverShown), std::end(kNeverShown), [&](const Range &range) {
    return character.value >= range.first && character.value <= range.last;
  });
  return hidden ? 0 : character.length;
}

std::string shown(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = shownLength(text);
    out += length == 0 ? std::string_view("?") : text.substr(0, length);
    // A character that is replaced goes as a whole.
    text.remove_prefix(std::max<std::size_t>(decode(text).length, 1));
  }
  return out;
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const Character character = decode(text);
    const int width = wcwidth(static_cast<wchar_t>(character.value));
    columns += width < 0 ? 1 : static_cast<std::size_t>(width);
    text.remove_prefix(std::max<std::size_t>(character.length, 1));
  }
  return columns;
}

std::string counted(std::size_t number, std::string_view thing) {
  return fmt::format("{} {}{}", number, thing, number == 1 ? "" : "s");
}

std::string hex(std::span<const std::uint8_t> bytes, std::string_view separator) {
  return fmt::format("{:02X}", fmt::join(bytes, separator));
}

std::string csvField(std::string_view text) {
  const bool formula = !text.empty() && std::string_view("=+-@\t\r").find(text.front()) != std::string_view::npos;
  std::string field = fmt::format("{}{}", formula ? "'" : "", text);
  if (field.find_first_of("\",\r\n") == std::string::npos) return field;
  std::string doubled;
  for (const char character : field) doubled.append(character == '"' ? 2 : 1, character);
  return fmt::format("\"{}\"", doubled);
}

bool isControllable(int stream) {
  const std::string_view terminal = variable("TERM");
  return isatty(stream) == 1 && !terminal.empty() && terminal != "dumb";
}

std::string toned(std::string_view line, Tone tone, int stream) {
  const bool wanted = tone != Tone::kPlain && isControllable(stream) && variable("NO_COLOR").empty();
  if (!wanted) return std::string(line);
  return fmt::format("\033[{}m{}\033[0m", tone == Tone::kGood ? "32" : "1;31", line);
}

}  // namespace kelm::tools
