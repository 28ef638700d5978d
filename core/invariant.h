// Checks for things that cannot happen.  The sanitizer build aborts so the fault is found;
// the release build logs to stderr and carries on, because a node that serves thousands of
// users must not die on a bookkeeping slip.
#pragma once

#include <cstdio>
#include <cstdlib>

#if defined(QX_ABORT_ON_INVARIANT)
#define QX_INVARIANT(cond)                                                                \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      std::fprintf(stderr, "invariant failed: %s at %s:%d\n", #cond, __FILE__, __LINE__); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (0)
#else
#define QX_INVARIANT(cond)                                                                \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      std::fprintf(stderr, "invariant failed: %s at %s:%d\n", #cond, __FILE__, __LINE__); \
    }                                                                                     \
  } while (0)
#endif
