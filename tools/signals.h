// SPDX-License-Identifier: Apache-2.0
// What is to be put in order when a signal ends the program.
#pragma once

#include <functional>

namespace kelm::tools {

// While it lives, SIGINT, SIGTERM, SIGHUP and SIGTSTP do not end or stop the program at once: `action` runs first, on a
// thread of its own. It returns true when it has dealt with the signal (the program goes on); otherwise the action of
// the OnSignal around it follows, and at last the signal does what it usually does. Signals that are ignored, as under
// nohup, stay so.
class OnSignal {
 public:
  using Action = std::function<bool(int signal)>;
  explicit OnSignal(Action action);
  ~OnSignal();
  OnSignal(const OnSignal &) = delete;
  OnSignal &operator=(const OnSignal &) = delete;
};

}  // namespace kelm::tools
