// Two independent lives, each on its own survival model: the joint-life status (both alive) and
// the last-survivor status (at least one alive). A status is valued through its survival
// function S(t) alone, so every value below is a single-life formula with S(t) in place of
// l(x + t) / l(x): payments and benefits on a grid of 1/m-year periods, where S is exact at every
// point under each life's own interpolation, and integrals (continuous payments, the complete
// expectation) by Gauss-Legendre between the times at which either life reaches a whole age,
// where each life's interpolation changes its formula and S is smooth in between.
//
// Callers validate as for one life: ages within each model's [0, w], terms and deferments >= 0
// in whole periods, finite i > -1, m in 1..12 or kContinuous.
#pragma once

#include "kernels/contingencies.hpp"

namespace veltrane::kernels {

enum class Status { joint, last };

class PairSurvival {
public:
    PairSurvival(const LifeModel& first, double x, const LifeModel& second, double y, Status status) noexcept;

    // S(t) for t >= 0: p q (joint) or p + q - p q (last), with p = l1(x + t) / l1(x) and q the
    // same for the second life; a life with l = 0 at its age counts as dead from the start.
    double operator()(double t) const noexcept;
    // A time from which S is 0 (no life of the status remains).
    double horizon() const noexcept { return horizon_; }
    // The integral of v^t S(t) (e^(-delta t)) over a <= t <= b.
    double discounted_integral(double a, double b, double delta) const;

private:
    double single(const LifeModel& life, double age, double l0, double t) const noexcept {
        return l0 > 0.0 ? life.at(age + t) / l0 : 0.0;
    }
    const LifeModel* first_;
    const LifeModel* second_;
    double x_, y_, lx_, ly_;
    Status status_;
    double horizon_;
};

// The values of one status, for one element (n = kWholeLife for life), as the single-life
// kernels of the same names define them: the annuity of Payments (n and defer in whole 1/m
// periods, any real ones for kContinuous), the insurance paid at the end of the 1/m period of
// failure of the status (at the moment for kContinuous) with an optional endowment at defer + n,
// the pure endowment v^n S(n), and the expectation of the status (curtate: S(1) + ... + S(n);
// complete: the integral of S over 0..n).
double pair_annuity(const PairSurvival& s, const Interest& r, const Payments& p, double n);
double pair_insurance(const PairSurvival& s, const Interest& r, double defer, int m, bool endowment, double n);
double pair_pure_endowment(const PairSurvival& s, const Interest& r, double n) noexcept;
double pair_expectation(const PairSurvival& s, bool complete, double n);

// 1 paid at the end of the year in which the first life (aged x) dies, if the second (aged y) is
// then alive, within n whole years (kWholeLife: for life): the sum over the years k of v^(k + 1)
// times the integral over the year of the first's density of death, -l1'(x + t) / l1(x), times
// the second's survival l2(y + t) / l2(y), each under its own interpolation within the year.
double first_failing(const LifeModel& first, double x, const LifeModel& second, double y, const Interest& r,
                     double n);

}  // namespace veltrane::kernels
