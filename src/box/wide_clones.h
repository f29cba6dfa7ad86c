// Hot loops over whole tables are built twice on x86-64 with GCC, for AVX2
// and for the baseline, and the loader picks the one the CPU runs.
#pragma once

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define MP4STBL_WIDE_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define MP4STBL_WIDE_CLONES
#endif
