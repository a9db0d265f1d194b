// SPDX-License-Identifier: Apache-2.0
// Cloning of kernels for instruction sets.
//
// A kernel is written once, as a plain loop in a function marked KELM_INLINE whose parameters are all it needs. One
// line clones it for the wider instruction sets and makes the function that picks the clone for the processor at hand:
//
//   KELM_INLINE void addRowsBody(int32_t *out, const int32_t *in, size_t n) { for (...) ... }
//   KELM_KERNEL(void, addRows, (int32_t * out, const int32_t *in, size_t n), (out, in, n), addRowsBody)
//
// Everything that the body calls must be KELM_INLINE too, lambdas included, or it stays compiled for the plain
// instruction set. A kernel with intrinsics of its own tests instructionSet() instead. The clones give the same results
// bit for bit: no fused multiply-add (-ffp-contract=off), no reordering of floating-point operations.
#ifndef KELMTROVA_IMAGE_SUPPORT_DISPATCH_H
#define KELMTROVA_IMAGE_SUPPORT_DISPATCH_H

// The widest instruction set that this build may use: 0 plain, 1 AVX2, 2 AVX-512. Tests build the library at each
// level.
#ifndef KELM_MAX_LEVEL
#define KELM_MAX_LEVEL 2
#endif

#if !defined(__x86_64__)
#undef KELM_MAX_LEVEL
#define KELM_MAX_LEVEL 0
#endif

#define KELM_INLINE static inline __attribute__((always_inline))
#define KELM_TARGET_AVX2 __attribute__((target("avx2,bmi,bmi2,lzcnt,popcnt")))
#define KELM_TARGET_AVX512 __attribute__((target("avx2,bmi,bmi2,lzcnt,popcnt,avx512f,avx512bw,avx512dq,avx512vl")))

namespace kelm::image {

enum class InstructionSet { kPlain, kAvx2, kAvx512 };

inline InstructionSet instructionSet() {
#if KELM_MAX_LEVEL >= 2
  if (__builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("bmi2")) {
    return InstructionSet::kAvx512;
  }
#endif
#if KELM_MAX_LEVEL >= 1
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2")) {
    return InstructionSet::kAvx2;
  }
#endif
  return InstructionSet::kPlain;
}

}  // namespace kelm::image

#if KELM_MAX_LEVEL >= 2
#define KELM_CLONE_AVX512(result, name, parameters, arguments, body) \
  KELM_TARGET_AVX512 static result name##Avx512 parameters { return body arguments; }
#define KELM_PICK_AVX512(name, arguments)                                      \
  if (kelm::image::instructionSet() == kelm::image::InstructionSet::kAvx512) { \
    return name##Avx512 arguments;                                             \
  }
#else
#define KELM_CLONE_AVX512(result, name, parameters, arguments, body)
#define KELM_PICK_AVX512(name, arguments)
#endif

#if KELM_MAX_LEVEL >= 1
#define KELM_CLONE_AVX2(result, name, parameters, arguments, body) \
  KELM_TARGET_AVX2 static result name##Avx2 parameters { return body arguments; }
#define KELM_PICK_AVX2(name, arguments)                                      \
  if (kelm::image::instructionSet() == kelm::image::InstructionSet::kAvx2) { \
    return name##Avx2 arguments;                                             \
  }
#else
#define KELM_CLONE_AVX2(result, name, parameters, arguments, body)
#define KELM_PICK_AVX2(name, arguments)
#endif

#define KELM_KERNEL(result, name, parameters, arguments, body) \
  KELM_CLONE_AVX512(result, name, parameters, arguments, body) \
  KELM_CLONE_AVX2(result, name, parameters, arguments, body)   \
  static result name parameters {                              \
    KELM_PICK_AVX512(name, arguments)                          \
    KELM_PICK_AVX2(name, arguments)                            \
    return body arguments;                                     \
  }

#endif
