// SPDX-License-Identifier: Apache-2.0
// Box sums along vectors.
#include "image/filters/vector_sums.h"

#include "kelmtrova/image.h"

using kelm::image::vectorLocalSum;

void fvs_VectorLocalSumChar2Char(uint8_t *out, const uint8_t *in, int16_t outStride, int16_t inStride, int16_t n,
                                 uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumChar2Uint16(uint16_t *out, const uint8_t *in, int16_t outStride, int16_t inStride, int16_t n,
                                   uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumUint162Uint16(uint16_t *out, const uint16_t *in, int16_t outStride, int16_t inStride, int16_t n,
                                     uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumInt2Int(int32_t *out, const int32_t *in, int16_t outStride, int16_t inStride, int16_t n,
                               uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}

void fvs_VectorLocalSumFloat2Float(float *out, const float *in, int16_t outStride, int16_t inStride, int16_t n,
                                   uint8_t size) {
  vectorLocalSum(out, in, outStride, inStride, n, size);
}
