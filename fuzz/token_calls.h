// SPDX-License-Identifier: Apache-2.0
// A sequence of token calls chosen by the input, with outputs in buffers of exactly the size that the header asks for.
#ifndef KELMTROVA_FUZZ_TOKEN_CALLS_H
#define KELMTROVA_FUZZ_TOKEN_CALLS_H

#include <array>
#include <memory>

#include "fuzz/input.h"
#include "kelmtrova/token.h"

namespace kelm::fuzz {

using TokenCall = void (*)(const SCardConnection *, Input &);

template <auto function>
void plainCall(const SCardConnection *handle, Input &) {
  function(handle);
}

template <auto function>
void byteCall(const SCardConnection *handle, Input &input) {
  function(handle, input.byte());
}

template <auto function>
void getterCall(const SCardConnection *handle, Input &) {
  const auto value = std::make_unique<std::uint8_t>();
  function(handle, value.get());
}

inline void infoCall(const SCardConnection *handle, Input &) {
  std::vector<std::uint8_t> info(256);
  std::uint64_t length = 0;
  KelmTrovaGetDeviceInfo(handle, info.data(), &length);
}

inline void enrollCall(const SCardConnection *handle, Input &input) {
  const auto record = std::make_unique<TemplateIndexEntry>(input.take<TemplateIndexEntry>());
  KelmTrovaFeatureEnroll(handle, input.byte(), record.get());
}

// The caller knows the slot count only from an earlier answer, so the buffer has room for 255 entries.
inline void indexCall(const SCardConnection *handle, Input &) {
  std::vector<std::uint8_t> index(std::size_t{255} * 20);
  KelmTrovaReadIndexFile(handle, index.data());
}

inline void verifyCall(const SCardConnection *handle, Input &input) {
  const auto tries = std::make_unique<std::uint8_t>();
  const std::uint8_t mode = input.byte();
  KelmTrovaFeatureVerify(handle, mode, input.byte(), tries.get());
}

inline void identifyCall(const SCardConnection *handle, Input &input) {
  const auto outputs = std::make_unique<std::uint8_t[]>(2);
  const std::uint8_t mode = input.byte();
  KelmTrovaFeatureIdentify(handle, mode, mode == UINT8_MAX ? nullptr : &outputs[0], &outputs[1]);
}

inline void verifyTestCall(const SCardConnection *handle, Input &input) {
  const auto slot = std::make_unique<std::uint8_t>(input.byte());
  KelmTrovaFeatureVerifyTest(handle, input.byte() % 2, slot.get());
}

inline void downloadCall(const SCardConnection *handle, Input &input) {
  const std::size_t lines = input.byte();
  const std::size_t lineLength = input.byte();
  const auto pixels = input.samples<std::uint8_t>(lines * lineLength);
  const TokenImage image{lines, lineLength, 0, pixels.data()};
  KelmTrovaDownloadImage(handle, &image);
}

// An image without pixels whose dimensions are anything: refused, or nothing of it is read.
inline void oddDownloadCall(const SCardConnection *handle, Input &input) {
  const TokenImage image{input.take<std::uint64_t>(), input.take<std::uint64_t>(), 0, nullptr};
  KelmTrovaDownloadImage(handle, &image);
}

inline void readCall(const SCardConnection *handle, Input &input) {
  const auto offset = input.take<std::uint16_t>();
  std::vector<std::uint8_t> out(input.take<std::uint16_t>() % 1024);
  SCardReadBin(handle, input.take<std::uint16_t>(), offset, out.data(), static_cast<std::uint16_t>(out.size()));
}

inline void writeCall(const SCardConnection *handle, Input &input) {
  const auto offset = input.take<std::uint64_t>();
  const auto fid = input.take<std::uint64_t>();
  const auto data = input.samples<std::uint8_t>(input.take<std::uint16_t>() % 1024);
  SCardUpdateBin(handle, fid, offset, data.data(), data.size());
}

inline void fileCall(const SCardConnection *handle, Input &input) {
  const auto fcp = input.samples<std::uint8_t>(input.byte());
  SCardCreateFile(handle, input.take<std::uint16_t>(), fcp.data(), static_cast<std::uint8_t>(fcp.size()));
  SCardEraseEF(handle, input.take<std::uint16_t>());
  std::uint16_t counter = 0;
  token_get_current_fid(handle, &counter);
  token_set_next_fid(handle, counter);
}

inline void otherCall(const SCardConnection *handle, Input &input) {
  KelmTrovaUploadImage(handle, input.byte());
  (TEST)(ToBigEndian(Exchange(input.take<std::uint16_t>())));
  KelmTrovaDownloadImage(handle, nullptr);
  std::uint8_t command[5] = {};
  SCardAPDU(handle, command, sizeof(command), nullptr, nullptr);
  SCardTransmit(0, nullptr, nullptr, 0, nullptr, nullptr, nullptr);
}

constexpr std::array kTokenCalls{
    TokenCall{plainCall<KelmIsTrova>},
    TokenCall{plainCall<KelmTrovaSelfTest>},
    TokenCall{infoCall},
    TokenCall{getterCall<KelmTrovaGetMaxTmpltNum>},
    TokenCall{plainCall<KelmTrovaCaptureImage>},
    TokenCall{byteCall<KelmTrovaFeatureExtract>},
    TokenCall{enrollCall},
    TokenCall{indexCall},
    TokenCall{byteCall<KelmTrovaDeleteFingerPrint>},
    TokenCall{verifyCall},
    TokenCall{identifyCall},
    TokenCall{verifyTestCall},
    TokenCall{byteCall<KelmTrovaSetVerifyMode>},
    TokenCall{getterCall<KelmTrovaGetVerifyMode>},
    TokenCall{byteCall<KelmTrovaSetTimeOut>},
    TokenCall{getterCall<KelmTrovaGetTimeOut>},
    TokenCall{byteCall<KelmTrovaSetSecLevel>},
    TokenCall{getterCall<KelmTrovaGetSecLevel>},
    TokenCall{byteCall<KelmTrovaSetImageGain>},
    TokenCall{getterCall<KelmTrovaGetImageGain>},
    TokenCall{getterCall<KelmTrovaGetSecState>},
    TokenCall{getterCall<KelmTrovaGetFingerCacheState>},
    TokenCall{plainCall<KelmTrovaClearFingerCache>},
    TokenCall{byteCall<KelmTrovaEnableFingerCache>},
    TokenCall{downloadCall},
    TokenCall{oddDownloadCall},
    TokenCall{readCall},
    TokenCall{writeCall},
    TokenCall{fileCall},
    TokenCall{otherCall},
};

// Most often over a connection that is ready; sometimes over one that is not, or is none.
inline void makeTokenCalls(Input &input) {
  SCardConnection connection{};
  const std::uint8_t kind = input.byte();
  connection.bState = kind < 250 ? 3 : 0;
  connection.dwProtocol = input.byte() % 3;
  for (int calls = 0; calls < 8 && !input.empty(); ++calls) {
    const SCardConnection *handle = kind == 255   ? nullptr
                                    : kind == 254 ? reinterpret_cast<const SCardConnection *>(UINTPTR_MAX)
                                                  : &connection;
    kTokenCalls[input.byte() % kTokenCalls.size()](handle, input);
  }
}

}  // namespace kelm::fuzz

#endif
