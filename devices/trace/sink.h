// SPDX-License-Identifier: Apache-2.0
// The file of a trace. What goes wrong with it is told and does nothing else: no signal, no wait of more than a second.
#ifndef KELMTROVA_DEVICES_TRACE_SINK_H
#define KELMTROVA_DEVICES_TRACE_SINK_H

#include <string>
#include <string_view>

namespace kelm::trace {

class Sink {
 public:
  explicit Sink(std::string name);
  ~Sink();
  Sink(const Sink &) = delete;
  Sink &operator=(const Sink &) = delete;

  // All of a record, or nothing of it and of what follows.
  void write(std::string_view record);
  // "" as long as all is well.
  const std::string &error() const { return error_; }

 private:
  void giveUp(int why);

  std::string name_;
  std::string error_;
  int file_;
};

}  // namespace kelm::trace

#endif
