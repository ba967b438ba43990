// TQ_ASSERT, the check for what only a mistake of ours can cause: a broken precondition between internal layers.
// Used everywhere inside the library; conditions that can really occur are a TqStatus instead. It stays active in
// every build, and is ours, not <cassert>'s, so that no NDEBUG can switch it off.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace tq_detail {
[[noreturn]] inline void AssertFailed(const char* expression, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expression);
    std::abort();
}
}  // namespace tq_detail

// Prints file, line and the expression as written, then aborts.
#define TQ_ASSERT(expression) \
    ((expression) ? static_cast<void>(0) : tq_detail::AssertFailed(#expression, __FILE__, __LINE__))
