// Searches over long vectors that test every value of a chunk without branching, so that the
// test vectorises; only a chunk holding a hit is searched again, value by value.
#pragma once

#include <cstddef>
#include <span>

namespace veltrane::kernels {

// The index of the first value x with bad(x), or x.size() when there is none.
template <class Bad>
std::size_t find_first(std::span<const double> x, Bad bad) noexcept {
    constexpr std::size_t kChunk = 512;
    for (std::size_t begin = 0; begin < x.size(); begin += kChunk) {
        const std::size_t end = x.size() - begin > kChunk ? begin + kChunk : x.size();
        bool any = false;
        for (std::size_t k = begin; k < end; ++k) any |= bad(x[k]);
        if (!any) continue;
        for (std::size_t k = begin; k < end; ++k) {
            if (bad(x[k])) return k;
        }
    }
    return x.size();
}

// Finite, without a library call: x - x is 0 for a finite x and NaN otherwise.
inline bool not_finite(double x) noexcept { return !(x - x == 0.0); }

}  // namespace veltrane::kernels
