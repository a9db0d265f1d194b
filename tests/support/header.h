// SPDX-License-Identifier: Apache-2.0
// The public headers as text: what they export, and what the comment above each declaration says.
#ifndef KELMTROVA_TESTS_SUPPORT_HEADER_H
#define KELMTROVA_TESTS_SUPPORT_HEADER_H

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

namespace kelm::test {

inline std::string textOf(const std::string &path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Every exported name of include/kelmtrova/`header` with the nearest comment above it. The name is the word before the
// first parenthesis, semicolon or bracket; TEST is itself in parentheses.
inline std::map<std::string, std::string> declarationsOf(const std::string &header) {
  const std::string text = textOf(KELM_SOURCE_DIR "/include/kelmtrova/" + header);
  const std::string mark = "\nKELMTROVA_API ";
  std::map<std::string, std::string> declarations;
  for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
    std::string declaration = text.substr(at + mark.size(), 200);
    const std::size_t wrapped = declaration.find("(TEST)");
    declaration.resize(wrapped < 20 ? wrapped + 5 : declaration.find_first_of("(;["));
    const std::size_t comment = text.rfind("/*", at);
    declarations[declaration.substr(declaration.find_last_of(" *(\n") + 1)] =
        text.substr(comment, text.find("*/", comment) - comment);
  }
  return declarations;
}

// The figure of "... 12 KiB of stack" in a comment, wherever its lines break; 0 when there is none.
inline std::size_t statedStack(const std::string &comment) {
  std::smatch figure;
  const std::regex sentence(R"((\d+)[\s*]+KiB[\s*]+of[\s*]+(the[\s*]+)?stack)");
  return std::regex_search(comment, figure, sentence) ? std::stoul(figure[1]) * 1024 : 0;
}

}  // namespace kelm::test

#endif
