// The valuation pass. A policy is walked from its issue (years already run count only towards
// its net premium at issue) to the end of its cover in three short passes over per-thread
// arrays of one slot per year: its rates are gathered (one strided run along the select
// diagonal, one contiguous run on the ultimate column; mixed or rated rates one by one), its
// survival is accumulated, then every cash flow is discounted and summed in loops over years
// that carry no dependency from one year to the next. Nothing of (policies x years) is made
// unless the reserves are asked for.
#include "kernels/valuation.hpp"

#include "kernels/modify.hpp"
#include "kernels/rounding.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>
#include <vector>

namespace veltrane::kernels::valuation {
namespace {

using Index = std::int64_t;

inline Index field(const Block& b, IntField f, std::size_t i) noexcept { return b.ints[f][i]; }
inline double field(const Block& b, RealField f, std::size_t i) noexcept { return b.reals[f][i]; }
inline Index field(const Block& b, GroupField f, std::size_t i) noexcept {
    return b.groups[static_cast<std::size_t>(b.ints[kGroup][i]) * kGroupFields + f];
}

// Years walked from issue: to the end of the term, and at most until the table's last column
// of the bank (1.0 there, so nobody survives it).
Index years_from_issue(const Bank& bank, const Block& b, std::size_t i) noexcept {
    const Index elapsed = field(b, kElapsed, i);
    const Index term = field(b, kTerm, i);
    const auto width = static_cast<Index>(bank.width);
    const Index first = std::min(field(b, kAge, i) - elapsed + field(b, kShift, i), width - 1);
    const Index to_end = width - first;
    return term >= 0 ? std::min(elapsed + term, to_end) : to_end;
}

// The sum of f(k) over [from, to) in four interleaved partial sums added in one fixed order:
// the additions do not wait on one another, and the bits do not depend on the machine.
template <class F>
inline double sum(Index from, Index to, F f) noexcept {
    double s[4] = {0.0, 0.0, 0.0, 0.0};
    Index k = from;
    for (; k + 4 <= to; k += 4) {
        for (int l = 0; l < 4; ++l) s[l] += f(k + l);
    }
    for (; k < to; ++k) s[0] += f(k);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

// alive[k] for k in [0, n]: alive[0] = 1, then one factor 1 - q[k] a year. The running product
// is carried four years at a time (the product of their four factors), so that it waits on one
// multiplication per four years, not on one a year; the years between are filled from it.
inline void survive(const double* q, Index n, double* alive) noexcept {
    double a = 1.0;
    alive[0] = a;
    Index k = 0;
    for (; k + 4 <= n; k += 4) {
        const double p0 = 1.0 - q[k], p1 = 1.0 - q[k + 1], p2 = 1.0 - q[k + 2], p3 = 1.0 - q[k + 3];
        const double p01 = p0 * p1;
        alive[k + 1] = a * p0;
        alive[k + 2] = a * p01;
        alive[k + 3] = a * (p01 * p2);
        a *= p01 * (p2 * p3);
        alive[k + 4] = a;
    }
    for (; k < n; ++k) {
        a *= 1.0 - q[k];
        alive[k + 1] = a;
    }
}

// The sums by year of the lives in force, the deaths and the death benefits, for years [0, n);
// every array is a separate run of memory, so the loop is made of vector operations.
void add_deaths(double* __restrict in_force, double* __restrict deaths, double* __restrict death_benefits,
                const double* __restrict alive, const double* __restrict q, const double* __restrict level,
                double amount, Index n) noexcept {
    for (Index k = 0; k < n; ++k) {
        const double dying = alive[k] * q[k];
        in_force[k] += alive[k];
        deaths[k] += dying;
        death_benefits[k] += dying * amount * level[k];
    }
}

void add_premiums(double* __restrict premiums, const double* __restrict alive, double premium, Index n) noexcept {
    for (Index k = 0; k < n; ++k) premiums[k] += premium * alive[k];
}

// Work arrays of one thread, a slot per year from issue (and one more for survival).
struct Scratch {
    explicit Scratch(std::size_t width)
        : q(width + 1), alive(width + 1), issue_alive(width + 1), level(width + 1), ones(width + 1, 1.0) {}
    std::vector<double> q, alive, issue_alive, level, ones;
};

// The cash flows of one policy read from one discount origin: years [0, n) of `alive` (lives at
// the start of each year, per life at the origin), `q`, `level` and the discount factors.
struct Flows {
    const double* alive;
    const double* q;
    const double* level;
    Index n;
    Index premium_end;    // premiums are due in years before it
    Index survival_from;  // survival benefits are paid from this year on
    Index maturity;       // the year at whose end the endowment falls (-1: none)
    bool level_one;       // every level is 1 (no escalation)
};

struct Sums {
    double benefits = 0.0, annuity = 0.0;
};

class Valuer {
public:
    Valuer(const Bank& bank, const Discount& discount, const Settings& settings)
        : bank_(bank), discount_(discount), settings_(settings), m_(settings.m),
          first_(settings.due ? 0 : 1), stride_((discount.steps - 1) / static_cast<std::size_t>(settings.m) + 1) {
        if (m_ == 1) return;
        for (int l = first_; l < first_ + m_; ++l) mean_time_ += static_cast<double>(l) / m_;
        mean_time_ /= m_;
        // Per basis and year: v at the year's start, and (1/m) sum of v(t + l) and of
        // v(t + l) l/m over the instalments l of the year, so a linear year costs two
        // multiplications and every array is read year by year.
        const std::size_t steps = discount.steps;
        const auto m = static_cast<std::size_t>(m_);
        yearly_.assign(3 * discount.bases * stride_, 0.0);
        for (std::size_t b = 0; b < discount.bases; ++b) {
            const double* v = discount.factors + b * steps;
            double* year_v = yearly_.data() + b * stride_;
            double* level = year_v + discount.bases * stride_;
            double* slope = level + discount.bases * stride_;
            for (std::size_t k = 0; k < stride_; ++k) {
                year_v[k] = v[k * m];
                if (k * m + static_cast<std::size_t>(first_ + m_ - 1) >= steps) continue;
                double lv = 0.0, sl = 0.0;
                for (int l = first_; l < first_ + m_; ++l) {
                    lv += v[k * m + static_cast<std::size_t>(l)];
                    sl += v[k * m + static_cast<std::size_t>(l)] * (static_cast<double>(l) / m_);
                }
                level[k] = lv / m_;
                slope[k] = sl / m_;
            }
        }
    }

    // Values policy i under scenario s; writes its results and, when asked, its reserves and
    // adds its years to `flows` (kFlows x years of its chunk and scenario).
    void operator()(const Block& b, std::size_t i, std::size_t s, Scratch& w, const Outputs& out, double* reserves,
                    double* flows) const noexcept {
        const Index elapsed = field(b, kElapsed, i);
        const Index term = field(b, kTerm, i);
        const Index deferral = field(b, kDeferral, i);
        const Index premium_term = field(b, kPremiumTerm, i) >= 0 ? field(b, kPremiumTerm, i) : term;
        const double death = field(b, kDeath, i);
        const double survival = field(b, kSurvival, i);
        const double endowment = field(b, kEndowment, i);
        const double given_premium = field(b, kPremium, i);
        const double growth = 1.0 + field(b, kEscalation, i);
        const std::size_t basis = static_cast<std::size_t>(field(b, kBasis, i)) + s;
        const Index years = years_from_issue(bank_, b, i);
        const Index before = std::min(elapsed, years);  // years walked before the valuation date
        const Index ahead = years - before;             // years walked from it

        double* q = w.q.data();
        gather(b, i, years, q);
        const double* level = w.ones.data();
        if (growth != 1.0) {
            double lv = elapsed == 0 ? 1.0 : std::pow(growth, -static_cast<double>(elapsed));
            for (Index j = 0; j < years; ++j, lv *= growth) w.level[static_cast<std::size_t>(j)] = lv;
            level = w.level.data();
        }
        double* alive = w.alive.data();
        survive(q + before, ahead, alive);

        const Amounts amounts{death, survival, endowment, basis};
        const bool level_one = growth == 1.0;
        const Flows from_now{alive, q + before, level + before, ahead, premium_term < 0 ? ahead : premium_term,
                             deferral, term >= 0 ? term - 1 : -1, level_one};
        const Sums now = value(from_now, amounts);
        Sums at_issue = now;
        if (elapsed > 0) {
            // Survival from issue, as far as it is needed.
            double* issue_alive = w.issue_alive.data();
            const Index walk = settings_.flat ? before : years;
            survive(q, walk, issue_alive);
            const Index maturity = term >= 0 ? elapsed + term - 1 : -1;
            if (settings_.flat) {
                // At one rate the years from the valuation date are worth, at issue, their value
                // at the valuation date discounted over the years run, for the lives still there.
                // The years before it pay every premium and no survival benefit.
                const Flows run{issue_alive, q, level, before, before, before, maturity, level_one};
                const Sums past = value(run, amounts);
                const double back = issue_alive[before] * year_v(basis)[before];
                at_issue.benefits = past.benefits + back * now.benefits;
                at_issue.annuity = past.annuity + back * now.annuity;
            } else {
                const Index premium_end = premium_term < 0 ? years : elapsed + premium_term;
                const Flows whole{issue_alive, q, level, years, premium_end, elapsed + deferral, maturity, level_one};
                at_issue = value(whole, amounts);
            }
        }
        const double net =
            at_issue.annuity > 0.0 ? at_issue.benefits / at_issue.annuity : std::numeric_limits<double>::quiet_NaN();
        const double premium = std::isnan(given_premium) ? net : given_premium;
        double* results = out.results + s * out.scenario_stride + i;
        results[kPvBenefits * out.result_stride] = now.benefits;
        results[kPvPremiums * out.result_stride] = premium * now.annuity;
        results[kNetPremium * out.result_stride] = net;
        results[kReserve * out.result_stride] = now.benefits - premium * now.annuity;
        const Index kept = std::min(ahead, static_cast<Index>(settings_.years));
        if (reserves != nullptr) reserves_of(from_now, amounts, premium, kept, reserves);
        if (flows != nullptr) add_flows(from_now, amounts, premium, kept, flows);
    }

private:
    struct Amounts {
        double death, survival, endowment;
        std::size_t basis;
    };

    const double* year_v(std::size_t basis) const noexcept {
        return m_ == 1 ? discount_.factors + basis * discount_.steps : yearly_.data() + basis * stride_;
    }

    // The rates of years [0, years) from issue along the policy's diagonal (select columns, then
    // the ultimate one), mixed and rated as a blended or modified table would hold them.
    void gather(const Block& b, std::size_t i, Index years, double* q) const noexcept {
        const auto width = static_cast<Index>(bank_.width);
        const Index elapsed = field(b, kElapsed, i);
        const Index offset = field(b, kOffset, i);
        const Index issue_offset = offset - std::min(offset, elapsed);
        const Index first_age = field(b, kAge, i) - elapsed + field(b, kShift, i);
        const Index row = field(b, kRow, i);
        const Index period = field(b, kPeriod, i);
        const double blend = field(b, kBlend, i);
        const double multiplier = field(b, kMultiplier, i);
        const double aggravation = field(b, kAggravation, i);
        const bool rated = multiplier != 1.0 || aggravation != 1.0 || field(b, kShift, i) != 0;
        // Within the years walked every age is inside the bank (years_from_issue stops there)
        // unless the policy starts beyond it; then its one year reads the last age.
        const Index select_years = std::clamp<Index>(period - issue_offset, 0, years);
        if (!rated && std::isnan(blend) && first_age + years <= width) {
            if (select_years > 0) {  // the diagonal starts inside the select columns
                const double* diagonal = bank_.rates + (row + issue_offset) * width + first_age;
                for (Index j = 0; j < select_years; ++j) q[j] = diagonal[j * (width + 1)];
            }
            const double* ultimate = bank_.rates + (row + period) * width + first_age;
            std::copy(ultimate + select_years, ultimate + years, q + select_years);
            return;
        }
        const Index female = field(b, kFemale, i);
        const int decimals = static_cast<int>(field(b, kDecimals, i));
        for (Index j = 0; j < years; ++j) {
            const Index r = row + std::min(issue_offset + j, period);
            q[j] = rate(r, std::min(first_age + j, width - 1), blend, female, rated, multiplier, aggravation, decimals);
        }
    }

    // Present values at the origin of the years of `f`: the benefits and the premiums of 1.
    Sums value(const Flows& f, const Amounts& a) const noexcept {
        const double* v = year_v(a.basis);
        const double* alive = f.alive;
        const double* q = f.q;
        const double* level = f.level;
        Sums out;
        if (a.death != 0.0) {
            // A level benefit skips its factors of 1 (the same bits).
            out.benefits = f.level_one ? a.death * sum(0, f.n, [&](Index k) { return alive[k] * q[k] * v[k + 1]; })
                                       : a.death * sum(0, f.n, [&](Index k) { return alive[k] * q[k] * v[k + 1] * level[k]; });
        }
        if (a.survival != 0.0 && f.survival_from < f.n) {
            // The common cases without a call or a branch per year.
            double paid;
            if (m_ == 1 && settings_.due) {
                paid = sum(f.survival_from, f.n, [&](Index k) { return alive[k] * level[k] * v[k]; });
            } else if (m_ == 1) {
                paid = sum(f.survival_from, f.n, [&](Index k) { return alive[k] * level[k] * ((1.0 - q[k]) * v[k + 1]); });
            } else if (settings_.interpolation == Interpolation::linear) {
                const double* weight = v + discount_.bases * stride_;
                const double* slope = weight + discount_.bases * stride_;
                paid = sum(f.survival_from, f.n, [&](Index k) { return alive[k] * level[k] * (weight[k] - q[k] * slope[k]); });
            } else {
                paid = sum(f.survival_from, f.n, [&](Index k) { return alive[k] * level[k] * within_year(q[k], a.basis, k); });
            }
            out.benefits += a.survival * paid;
        }
        if (a.endowment != 0.0 && f.maturity >= 0 && f.maturity < f.n) {
            const Index k = f.maturity;
            out.benefits += a.endowment * (alive[k] * (1.0 - q[k]) * v[k + 1] * level[k]);
        }
        out.annuity = sum(0, std::min(f.premium_end, f.n), [&](Index k) { return alive[k] * v[k]; });
        return out;
    }

    // Prospective reserves at anniversaries [0, kept), backwards so that a reserve late in the
    // term is not the difference of two large sums; 0 where nobody is left.
    void reserves_of(const Flows& f, const Amounts& a, double premium, Index kept, double* reserves) const noexcept {
        const double* v = year_v(a.basis);
        std::fill(reserves + kept, reserves + settings_.years, 0.0);
        double ahead = 0.0;
        for (Index y = f.n; y-- > 0;) {
            const double q = f.q[y];
            double year = a.death * q * v[y + 1];
            if (a.survival != 0.0 && y >= f.survival_from) year += a.survival * within_year(q, a.basis, y);
            if (y == f.maturity) year += a.endowment * (1.0 - q) * v[y + 1];
            ahead += f.alive[y] * year * f.level[y];
            if (y < f.premium_end) ahead -= premium * (f.alive[y] * v[y]);
            if (y >= kept) continue;
            const double base = f.alive[y] * v[y];
            reserves[y] = base > 0.0 ? ahead / base : 0.0;
        }
    }

    // The expected cash flows of years [0, kept), added to the chunk's sums by year.
    void add_flows(const Flows& f, const Amounts& a, double premium, Index kept, double* flows) const noexcept {
        const auto years = static_cast<Index>(settings_.years);
        double* in_force = flows + kInForce * years;
        double* deaths = flows + kDeaths * years;
        double* death_benefits = flows + kDeathBenefits * years;
        double* premiums = flows + kPremiums * years;
        const double* alive = f.alive;
        const double* q = f.q;
        const double* level = f.level;
        add_deaths(in_force, deaths, death_benefits, alive, q, level, a.death, kept);
        add_premiums(premiums, alive, premium, std::min(kept, f.premium_end));
        if (a.survival != 0.0) {
            double* survival_benefits = flows + kSurvivalBenefits * years;
            const double amount = a.survival;
            if (m_ == 1 && settings_.due) {
                for (Index k = f.survival_from; k < kept; ++k) survival_benefits[k] += alive[k] * amount * level[k];
            } else if (m_ == 1 || settings_.interpolation == Interpolation::linear) {
                const double mean = m_ == 1 ? 1.0 : mean_time_;
                for (Index k = f.survival_from; k < kept; ++k) {
                    survival_benefits[k] += alive[k] * amount * level[k] * (1.0 - q[k] * mean);
                }
            } else {
                for (Index k = f.survival_from; k < kept; ++k) {
                    survival_benefits[k] += alive[k] * amount * level[k] * expected_payments(q[k]);
                }
            }
        }
        if (a.endowment != 0.0 && f.maturity >= 0 && f.maturity < kept) {
            const Index k = f.maturity;
            flows[kEndowments * years + k] += alive[k] * (1.0 - q[k]) * a.endowment * level[k];
        }
    }

    // The policy's rate at a bank row and age: its unisex mix, then its rating, as a blended or
    // modified table would hold them.
    double rate(Index row, Index age, double blend, Index female, bool rated, double multiplier, double aggravation,
                int decimals) const noexcept {
        const auto w = static_cast<std::size_t>(bank_.width);
        double q = bank_.rates[static_cast<std::size_t>(row) * w + static_cast<std::size_t>(age)];
        if (!std::isnan(blend)) {
            const double other = bank_.rates[static_cast<std::size_t>(row + female) * w + static_cast<std::size_t>(age)];
            double mixed = q * blend;
            mixed += other * (1.0 - blend);
            q = round_to(mixed > 1.0 ? 1.0 : (mixed < 0.0 ? 0.0 : mixed), decimals);
        }
        if (rated) {
            q *= multiplier;
            if (aggravation != 1.0) {
                if (q > 1.0) q = 1.0;
                aggravate(std::span<double>(&q, 1), aggravation);
            }
            q = round_to(q > 1.0 ? 1.0 : (q < 0.0 ? 0.0 : q), decimals);
        }
        return q;
    }

    // The fraction of the lives at the start of a year still alive after t of it.
    double fraction_alive(double q, double t) const noexcept {
        if (q >= 1.0) return 1.0 - t * q;  // a year without survivors is uniform
        switch (settings_.interpolation) {
            case Interpolation::linear: return interpolate_linear(1.0, 1.0 - q, t);
            case Interpolation::exponential: return interpolate_exponential(1.0, 1.0 - q, t);
            case Interpolation::hyperbolic: return interpolate_hyperbolic(1.0, 1.0 - q, t);
        }
        return 1.0 - t * q;
    }

    // The survival payments of 1 a year within year k, per life at its start, discounted.
    double within_year(double q, std::size_t basis, Index k) const noexcept {
        const double* yv = year_v(basis);
        if (m_ == 1) return settings_.due ? yv[k] : (1.0 - q) * yv[k + 1];
        if (q >= 1.0 || settings_.interpolation == Interpolation::linear) {
            const double* level = yv + discount_.bases * stride_;
            const double* slope = level + discount_.bases * stride_;
            return level[k] - q * slope[k];
        }
        const double* v = discount_.factors + basis * discount_.steps + k * m_;
        double total = 0.0;
        if (settings_.interpolation == Interpolation::exponential) {
            const double step = std::pow(1.0 - q, 1.0 / m_);
            double alive = first_ == 0 ? 1.0 : step;
            for (int l = first_; l < first_ + m_; ++l, alive *= step) total += v[l] * alive;
            return total / m_;
        }
        for (int l = first_; l < first_ + m_; ++l) total += v[l] * fraction_alive(q, static_cast<double>(l) / m_);
        return total / m_;
    }

    // The same payments undiscounted.
    double expected_payments(double q) const noexcept {
        if (m_ == 1) return settings_.due ? 1.0 : 1.0 - q;
        // Linear within the year: 1 - q times the mean time of the instalments.
        if (q >= 1.0 || settings_.interpolation == Interpolation::linear) return 1.0 - q * mean_time_;
        double total = 0.0;
        for (int l = first_; l < first_ + m_; ++l) total += fraction_alive(q, static_cast<double>(l) / m_);
        return total / m_;
    }

    const Bank& bank_;
    const Discount& discount_;
    const Settings& settings_;
    int m_;
    int first_;               // the first instalment's index within a year (0 in advance, 1 in arrears)
    std::size_t stride_;      // years per basis in `yearly_`
    double mean_time_ = 0.0;  // mean of the instalment times l/m within a year
    // For m > 1, three blocks of bases x stride_: v at each year's start, then the linear-year
    // weights (level and slope).
    std::vector<double> yearly_;
};

}  // namespace

std::size_t steps_needed(const Bank& bank, const Block& block, const Settings& settings) noexcept {
    Index most = 0;
    for (std::size_t i = 0; i < block.n; ++i) most = std::max(most, years_from_issue(bank, block, i));
    return static_cast<std::size_t>(most + 1) * static_cast<std::size_t>(settings.m) + 1;
}

void value_block(const Bank& bank, const Discount& discount, const Settings& settings, const Block& block,
                 const Outputs& out, unsigned threads) {
    const std::size_t chunks = (block.n + kChunk - 1) / kChunk;
    const std::size_t per_chunk = settings.scenarios * kFlows * settings.years;
    if (settings.flows) std::fill(out.flows, out.flows + chunks * per_chunk, 0.0);
    const Valuer valuer(bank, discount, settings);
    const std::size_t workers = std::max<std::size_t>(1, std::min<std::size_t>(threads, chunks));
    // Every buffer is made here, before any thread starts: nothing allocates on the threads.
    std::vector<Scratch> scratch(workers, Scratch(bank.width));
    auto run = [&](std::size_t worker) noexcept {
        Scratch& w = scratch[worker];
        const std::size_t from = chunks * worker / workers, to = chunks * (worker + 1) / workers;
        for (std::size_t c = from; c < to; ++c) {
            const std::size_t end = std::min(block.n, (c + 1) * kChunk);
            for (std::size_t i = c * kChunk; i < end; ++i) {
                for (std::size_t s = 0; s < settings.scenarios; ++s) {
                    double* reserves =
                        settings.reserves ? out.reserves + (s * block.n + i) * settings.years : nullptr;
                    double* flows = settings.flows ? out.flows + c * per_chunk + s * kFlows * settings.years : nullptr;
                    valuer(block, i, s, w, out, reserves, flows);
                }
            }
        }
    };
    {
        std::vector<std::jthread> pool;
        pool.reserve(workers - 1);
        for (std::size_t t = 1; t < workers; ++t) pool.emplace_back(run, t);
        run(0);
    }  // joined here
}

}  // namespace veltrane::kernels::valuation
