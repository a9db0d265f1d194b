// SPDX-License-Identifier: Apache-2.0
// Kernels: loops that are compiled once per instruction set.
//
// A kernel is written once, as a plain loop in a function marked KELM_INLINE whose parameters are all it needs. One
// line makes of it the function that runs the version for the processor at hand:
//
//   KELM_INLINE void addRowsBody(int32_t *__restrict out, const int32_t *__restrict in, size_t n) { for (...) ... }
//   constexpr auto addRows = kernel<addRowsBody>;
//
//   template <typename Sample> KELM_INLINE void sumRowsBody(Sample *out, const Sample *in, size_t n) { ... }
//   template <typename Sample> constexpr auto sumRows = kernel<sumRowsBody<Sample>>;
//
// Everything that a body calls must be inlined too, or it stays compiled for the plain instruction set: functions are
// marked KELM_INLINE, lambdas KELM_INLINE_LAMBDA after their parameters. A kernel with intrinsics of its own asks
// instructionSet() instead. All versions give the same results bit for bit: no fused multiply-add
// (-ffp-contract=off), no reordering of floating-point operations.
#ifndef KELMTROVA_IMAGE_SUPPORT_KERNEL_H
#define KELMTROVA_IMAGE_SUPPORT_KERNEL_H

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
#define KELM_INLINE_LAMBDA __attribute__((always_inline))

namespace kelm::image {

enum class InstructionSet { kPlain, kAvx2, kAvx512 };

// Looks for every extension that the versions below are compiled with, since a hypervisor may hide any one of them, and
// for an operating system that saves the wide registers. LZCNT is not among them: where it is missing it runs as
// another instruction, with other results, and not every compiler can look for it.
inline InstructionSet instructionSet() {
#if KELM_MAX_LEVEL >= 1
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2") &&
      __builtin_cpu_supports("popcnt")) {
#if KELM_MAX_LEVEL >= 2
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
        __builtin_cpu_supports("avx512vl")) {
      return InstructionSet::kAvx512;
    }
#endif
    return InstructionSet::kAvx2;
  }
#endif
  return InstructionSet::kPlain;
}

template <auto kBody>
struct Kernel;

template <typename Result, typename... Parameters, Result (*kBody)(Parameters...)>
struct Kernel<kBody> {
#if KELM_MAX_LEVEL >= 2
  __attribute__((target("avx2,bmi,bmi2,popcnt,avx512f,avx512bw,avx512dq,avx512vl"))) static Result runAvx512(
      Parameters... arguments) {
    return kBody(arguments...);
  }
#endif
#if KELM_MAX_LEVEL >= 1
  __attribute__((target("avx2,bmi,bmi2,popcnt"))) static Result runAvx2(Parameters... arguments) {
    return kBody(arguments...);
  }
#endif
  // Not inlined into `run`, which would take on its stack frame for every instruction set.
  __attribute__((noinline)) static Result runPlain(Parameters... arguments) { return kBody(arguments...); }

  static Result run(Parameters... arguments) {
    switch (instructionSet()) {
#if KELM_MAX_LEVEL >= 2
      case InstructionSet::kAvx512:
        return runAvx512(arguments...);
#endif
#if KELM_MAX_LEVEL >= 1
      case InstructionSet::kAvx2:
        return runAvx2(arguments...);
#endif
      default:
        return runPlain(arguments...);
    }
  }
};

// A function with the body's parameters and result.
template <auto kBody>
inline constexpr auto kernel = Kernel<kBody>::run;

}  // namespace kelm::image

#endif
