// SPDX-License-Identifier: Apache-2.0
// What the direction fields of a picture come in, for the tests that need them.
#ifndef KELMTROVA_TESTS_SUPPORT_FIELDS_H
#define KELMTROVA_TESTS_SUPPORT_FIELDS_H

#include "kelmtrova/image.h"
#include "tests/support/samples.h"

namespace kelm::test {

struct Shape {
  int height, width, fullHeight, fullWidth, window;
};

// The outputs of one call, released in the end.
struct DirectionFields {
  std::int32_t *products = nullptr, *differences = nullptr;
  FingerprintBlockField direction8 = {}, orientGrad = {}, direction16 = {};

  DirectionFields() = default;
  DirectionFields(const DirectionFields &) = delete;
  DirectionFields &operator=(const DirectionFields &) = delete;
  ~DirectionFields() {
    std::free(products);
    std::free(differences);
    for (const FingerprintBlockField *field : {&direction8, &orientGrad, &direction16}) {
      std::free(field->data);
    }
  }
  std::int32_t compute(const std::uint8_t *image, const Shape &s) {
    return call(FingerprintGetDirectionFloat, image, s.height, s.width, s.fullHeight, s.fullWidth, s.window, 77,
                &products, &differences, &direction8, &orientGrad, &direction16);
  }
};

}  // namespace kelm::test

#endif
