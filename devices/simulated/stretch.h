// SPDX-License-Identifier: Apache-2.0
// Exclusive stretches on the store of a simulated token: a lock file beside it, which every open device of every
// process takes for a stretch or for one command. Its end with the process ends the lock.
#ifndef KELMTROVA_DEVICES_SIMULATED_STRETCH_H
#define KELMTROVA_DEVICES_SIMULATED_STRETCH_H

#include <cstdint>
#include <string>

namespace kelm::devices {

// For one device, whose lock its callers hold. All functions throw Failure.
class Stretch {
 public:
  Stretch() = default;
  // What cannot be locked when the store is opened is tried again when a stretch begins.
  explicit Stretch(const std::string &store);
  ~Stretch();
  Stretch(const Stretch &) = delete;
  Stretch &operator=(const Stretch &) = delete;

  // Nested beginnings count. Wait for others, ten seconds at the most.
  void begin();
  void end();

  // The lock for one command; nothing within a stretch.
  class Turn {
   public:
    explicit Turn(Stretch &stretch);
    ~Turn();
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

   private:
    Stretch &stretch_;
    bool taken_;
  };

 private:
  // 0, or the number of the error that keeps it from being made.
  int openFile();
  void lock();
  void unlock();

  std::string path_;  // "" for a token in memory, which one device has
  int file_ = -1;
  std::uint32_t count_ = 0;
};

}  // namespace kelm::devices

#endif
