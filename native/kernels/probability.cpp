// Whole-vector forms of the probability kernels. Each element is computed exactly as its
// scalar form in the header; only the order of work differs (passes over short chunks).
#include "kernels/probability.hpp"

#include <algorithm>

namespace veltrane::kernels {
namespace {

constexpr std::size_t kChunk = 256;

template <class F>
void in_chunks(std::size_t n, F&& body) {
    for (std::size_t begin = 0; begin < n; begin += kChunk) body(begin, std::min(n, begin + kChunk) - begin);
}

// The first of p[0..m) outside [-eps, 1 + eps], as a fault at `offset + k`.
std::optional<RangeFault> first_outside(const double* p, std::size_t m, double eps, std::size_t offset) noexcept {
    for (std::size_t k = 0; k < m; ++k) {
        if (!within_unit_interval(p[k], eps)) return RangeFault{offset + k, p[k]};
    }
    return std::nullopt;
}

// Checks, clamps and finishes the survival probabilities p[0..m) into out[0..m). The
// check is a flag over the chunk, so the loop stays branch-free; only a chunk with a
// fault is searched again.
std::optional<RangeFault> finish_checked(double* p, std::size_t m, double eps, const Finish& finish, double* out,
                                         std::size_t offset) noexcept {
    bool outside = false;
    for (std::size_t k = 0; k < m; ++k) outside |= !within_unit_interval(p[k], eps);
    if (outside) return first_outside(p, m, eps, offset);
    for (std::size_t k = 0; k < m; ++k) out[k] = finish(clamp_unit(p[k]));
    return std::nullopt;
}

}  // namespace

void survivors(const Survivorship& s, std::span<const double> x, std::span<double> out) noexcept {
    for (std::size_t k = 0; k < x.size(); ++k) out[k] = lx_point(s, x[k]);
}

void survivors_rounded(const Survivorship& s, std::span<const double> x, const Rounder& round,
                       std::span<double> out) noexcept {
    in_chunks(x.size(), [&](std::size_t begin, std::size_t m) {
        double* o = out.data() + begin;
        for (std::size_t k = 0; k < m; ++k) o[k] = lx_point(s, x[begin + k]);
        for (std::size_t k = 0; k < m; ++k) o[k] = round(o[k]);
    });
}

void survivors_by_age(const Survivorship& s, const Rounder& round, std::span<double> out) noexcept {
    // lx_point at an integer age i <= w is l[min(i, last)]: no fraction to interpolate.
    const std::size_t n = s.l.size();
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = n == 0 ? 0.0 : round(s.l[i < n ? i : n - 1]);
}

void decrements(const Survivorship& s, std::span<const double> x, const Rounder& round,
                std::span<double> out) noexcept {
    double b[kChunk];
    in_chunks(x.size(), [&](std::size_t begin, std::size_t m) {
        double* o = out.data() + begin;
        for (std::size_t k = 0; k < m; ++k) b[k] = lx_point(s, x[begin + k] + 1.0);
        for (std::size_t k = 0; k < m; ++k) o[k] = lx_point(s, x[begin + k]);
        for (std::size_t k = 0; k < m; ++k) o[k] = round(o[k] - b[k]);
    });
}

void decrements_by_age(std::span<const double> l, const Rounder& round, std::span<double> out) noexcept {
    const std::size_t n = l.size();
    if (n == 0) return;
    for (std::size_t i = 0; i + 1 < n; ++i) out[i] = round(l[i] - l[i + 1]);
    out[n - 1] = round(l[n - 1]);
}

std::optional<RangeFault> finish_rates(std::span<const double> q, const Finish& finish, double eps,
                                       std::span<double> out) noexcept {
    for (std::size_t i = 0; i < q.size(); ++i) {
        if (!within_unit_interval(q[i], eps)) return RangeFault{i, finish.complement ? 1.0 - q[i] : q[i]};
        // A rate is the value itself (qx), so it is clamped as a rate, never as 1 - (1 - q).
        const double rate = clamp_unit(q[i]);
        out[i] = finish.round(finish.complement ? 1.0 - rate : rate);
    }
    return std::nullopt;
}

std::optional<RangeFault> survival_from_rates(std::span<const double> q, double w, std::span<const double> x,
                                              double eps, const Finish& finish, std::span<double> out) noexcept {
    double p[kChunk];
    std::optional<RangeFault> fault;
    in_chunks(x.size(), [&](std::size_t begin, std::size_t m) {
        if (fault) return;
        for (std::size_t k = 0; k < m; ++k) p[k] = survival_from_rate(q, w, x[begin + k]);
        fault = finish_checked(p, m, eps, finish, out.data() + begin, begin);
    });
    return fault;
}

std::optional<RangeFault> period_survivals(const Survivorship& s, std::span<const double> x, double period,
                                           const Finish& finish, std::span<double> out,
                                           const Rounder* lx_round) noexcept {
    double xc[kChunk], l0[kChunk], l1[kChunk];
    std::optional<RangeFault> fault;
    in_chunks(x.size(), [&](std::size_t begin, std::size_t m) {
        if (fault) return;
        for (std::size_t k = 0; k < m; ++k) xc[k] = clip_age(x[begin + k], s.w);
        for (std::size_t k = 0; k < m; ++k) {
            l0[k] = lx_point(s, xc[k]);
            l1[k] = lx_point(s, xc[k] + period);
        }
        if (lx_round != nullptr) {
            for (std::size_t k = 0; k < m; ++k) {
                l0[k] = (*lx_round)(l0[k]);
                l1[k] = (*lx_round)(l1[k]);
            }
        }
        for (std::size_t k = 0; k < m; ++k) l0[k] = (l0[k] != 0.0 && xc[k] + period <= s.w) ? l1[k] / l0[k] : 0.0;
        fault = finish_checked(l0, m, s.eps, finish, out.data() + begin, begin);
    });
    return fault;
}

std::optional<RangeFault> interval_survivals_rounded(const Survivorship& s, std::span<const double> x, double t,
                                                     const Rounder& lx_round, const Finish& finish,
                                                     std::span<double> out) noexcept {
    double a[kChunk], b[kChunk];
    std::optional<RangeFault> fault;
    in_chunks(x.size(), [&](std::size_t begin, std::size_t m) {
        if (fault) return;
        for (std::size_t k = 0; k < m; ++k) {
            a[k] = lx_point(s, x[begin + k] + t);
            b[k] = lx_point(s, x[begin + k]);
        }
        for (std::size_t k = 0; k < m; ++k) {
            a[k] = lx_round(a[k]);
            b[k] = lx_round(b[k]);
        }
        for (std::size_t k = 0; k < m; ++k) {
            const double p = b[k] != 0.0 ? a[k] / b[k] : 0.0;
            if (!within_unit_interval(p, s.eps)) {
                fault = RangeFault{begin + k, p};
                return;
            }
            out[begin + k] = finish(clamp_unit(p));
        }
    });
    return fault;
}

std::optional<RangeFault> interval_grid(const Survivorship& s, std::span<const double> x, std::span<const double> t,
                                        const Finish& finish, std::size_t row_begin, std::size_t row_end,
                                        std::span<double> out) noexcept {
    const std::size_t k = t.size();
    std::optional<RangeFault> fault;
    for (std::size_t i = row_begin; i < row_end && !fault; ++i) {
        const double xi = x[i];
        const double b = lx_point(s, xi);
        double* row = out.data() + i * k;
        if (b != 0.0) {
            in_chunks(k, [&](std::size_t begin, std::size_t m) {
                if (fault) return;
                double* r = row + begin;
                for (std::size_t j = 0; j < m; ++j) r[j] = lx_point(s, xi + t[begin + j]);
                for (std::size_t j = 0; j < m; ++j) r[j] = r[j] / b;
                fault = finish_checked(r, m, s.eps, finish, r, i * k + begin);
            });
        } else {
            std::fill(row, row + k, finish(0.0));
        }
    }
    return fault;
}

}  // namespace veltrane::kernels
