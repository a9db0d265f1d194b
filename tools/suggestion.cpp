// SPDX-License-Identifier: Apache-2.0
#include "tools/suggestion.h"

#include <algorithm>
#include <vector>

namespace kelm::tools {

namespace {

// Letters to insert, remove, replace or exchange with their neighbour.
std::size_t slips(const std::string &a, const std::string &b) {
  std::vector<std::vector<std::size_t>> cost(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) cost[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) cost[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + change});
      const bool exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (exchanged) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
    }
  }
  return cost[a.size()][b.size()];
}

}  // namespace

std::string suggestion(const CLI::App &app, const std::string &word) {
  const std::string typed = word.substr(0, word.find('='));
  std::vector<std::string> names;
  if (typed.starts_with('-')) {
    for (const CLI::Option *option : app.get_options()) {
      for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
    }
  } else {
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; })) {
      if (!command->get_group().empty()) names.push_back(command->get_name());
    }
  }
  std::string best;
  // A third of the letters may be wrong.
  std::size_t least = typed.size() / 3 + 1;
  for (const std::string &name : names) {
    const std::size_t count = slips(typed, name);
    if (count < least || (count == least && best.empty())) {
      least = count;
      best = name;
    }
  }
  return best;
}

}  // namespace kelm::tools
