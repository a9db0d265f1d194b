// SPDX-License-Identifier: Apache-2.0
// The single steps of the toolkit as commands: a picture in, a picture or raw numbers out.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "tools/image/maps.h"

namespace kelm::tools {

// Hands the step's map to `use`; `name` is the picture's, for messages.
using RunStep =
    std::function<void(const Picture &picture, const std::string &name, const std::function<void(const Map &)> &use)>;

struct Step {
  const char *name;
  const char *alias;  // an older name that still works; null for none
  const char *help;
  const char *example;  // what follows the command's name
  // Adds the step's own options to its command and answers what to run with them once they are read.
  RunStep (*prepare)(CLI::App &command);
};

const std::vector<Step> &steps();

}  // namespace kelm::tools
