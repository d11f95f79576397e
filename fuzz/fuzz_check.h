// Invariant checks shared by the fuzz targets: a broken one aborts, which
// libFuzzer reports with the input that caused it.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>

inline void check(bool ok)
{
    if (!ok) std::abort();
}

// A text field holds its terminating NUL.
template <size_t N>
bool terminated(const char (&field)[N])
{
    return strnlen(field, N) < N;
}
