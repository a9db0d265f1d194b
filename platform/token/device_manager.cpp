// The device manager's entry, answered by simulated tokens.
#include <cstdint>

extern "C" __attribute__((visibility("default"))) std::int32_t Icc_tsi_apiKelmDev(std::uint64_t /*device*/,
                                                                                std::uint64_t /*commandLength*/,
                                                                                const std::uint8_t * /*command*/,
                                                                                std::uint64_t *answerLength,
                                                                                std::uint8_t * /*answer*/) {
  constexpr std::int32_t kNoDevice = 0x6F00;
  *answerLength = 0;
  return kNoDevice;
}
