// The valuation pass. A policy is walked year by year from its issue (years already run count
// only towards its net premium at issue) to the end of its cover: one gather of its rate, the
// mix and rating of that rate, then every cash flow of the year discounted and summed, at the
// valuation date and at issue. The per-year records that the reserves and the per-year sums
// need are kept in a small buffer per thread, never in a (policies x years) temporary.
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

inline std::int64_t field(const Block& b, IntField f, std::size_t i) noexcept { return b.ints[i * kIntFields + f]; }
inline double field(const Block& b, RealField f, std::size_t i) noexcept { return b.reals[i * kRealFields + f]; }

// Years walked from issue: to the end of the term, and at most until the table's last column
// of the bank (1.0 there, so nobody survives it).
std::int64_t years_from_issue(const Bank& bank, const Block& b, std::size_t i) noexcept {
    const std::int64_t elapsed = field(b, kElapsed, i);
    const std::int64_t term = field(b, kTerm, i);
    const auto width = static_cast<std::int64_t>(bank.width);
    const std::int64_t first = std::min(field(b, kAge, i) - elapsed + field(b, kShift, i), width - 1);
    const std::int64_t to_end = width - first;
    return term >= 0 ? std::min(elapsed + term, to_end) : to_end;
}

// Per-year records of one policy at the valuation date (k = 0 .. years - 1).
struct Records {
    explicit Records(std::size_t years) : data(kSlots * years, 0.0), years_(years) {}
    enum Slot : std::size_t { kAlive, kPremiumDue, kBenefitPv, kAnnuityPv, kSlots };
    double* slot(Slot s) noexcept { return data.data() + s * years_; }
    std::vector<double> data;
    std::size_t years_;
};

class Valuer {
public:
    Valuer(const Bank& bank, const Discount& discount, const Settings& settings)
        : bank_(bank), discount_(discount), settings_(settings), m_(settings.m) {
        if (m_ == 1) return;
        for (int l = settings.due ? 0 : 1; l < (settings.due ? 0 : 1) + m_; ++l) mean_time_ += static_cast<double>(l) / m_;
        mean_time_ /= m_;
        // For every step t that starts a year: (1/m) sum of v(t + l) and (1/m) sum of v(t + l) l/m
        // over the instalments l of the year, so a linear year costs two multiplications.
        const int first = settings.due ? 0 : 1;
        const std::size_t steps = discount.steps;
        weights_.assign(2 * discount.bases * steps, 0.0);
        for (std::size_t b = 0; b < discount.bases; ++b) {
            const double* v = discount.factors + b * steps;
            for (std::size_t t = 0; t + static_cast<std::size_t>(first + m_ - 1) < steps; t += static_cast<std::size_t>(m_)) {
                double level = 0.0, slope = 0.0;
                for (int l = first; l < first + m_; ++l) {
                    level += v[t + static_cast<std::size_t>(l)];
                    slope += v[t + static_cast<std::size_t>(l)] * (static_cast<double>(l) / m_);
                }
                weights_[2 * (b * steps + t)] = level / m_;
                weights_[2 * (b * steps + t) + 1] = slope / m_;
            }
        }
    }

    // Values policy i under scenario s; writes its results and, when asked, its reserves and
    // adds its year records to `flows` (kFlows x years of its chunk and scenario).
    void operator()(const Block& b, std::size_t i, std::size_t s, Records* records, double* results, double* reserves,
                    double* flows) const noexcept {
        const std::int64_t elapsed = field(b, kElapsed, i);
        const std::int64_t term = field(b, kTerm, i);
        const std::int64_t deferral = field(b, kDeferral, i);
        const std::int64_t premium_term = field(b, kPremiumTerm, i) >= 0 ? field(b, kPremiumTerm, i) : term;
        const std::int64_t period = field(b, kPeriod, i);
        const std::int64_t offset = field(b, kOffset, i);
        const std::int64_t issue_offset = offset - std::min(offset, elapsed);
        const std::int64_t first_age = field(b, kAge, i) - elapsed + field(b, kShift, i);
        const std::int64_t row = field(b, kRow, i);
        const double blend = field(b, kBlend, i);
        const std::int64_t female = field(b, kFemale, i);
        const double multiplier = field(b, kMultiplier, i);
        const double aggravation = field(b, kAggravation, i);
        const bool rated = multiplier != 1.0 || aggravation != 1.0 || field(b, kShift, i) != 0;
        const bool mixed = rated || !std::isnan(blend);
        const int decimals = static_cast<int>(field(b, kDecimals, i));
        const double death = field(b, kDeath, i);
        const double survival = field(b, kSurvival, i);
        const double endowment = field(b, kEndowment, i);
        const double given_premium = field(b, kPremium, i);
        const double growth = 1.0 + field(b, kEscalation, i);
        const double* v = discount_.factors + (static_cast<std::size_t>(field(b, kBasis, i)) + s) * discount_.steps;
        const std::int64_t years = years_from_issue(bank_, b, i);
        const auto width = static_cast<std::int64_t>(bank_.width);
        const std::size_t kept = records != nullptr ? records->years_ : 0;
        const std::int64_t m = m_;
        const double* rates = bank_.rates;
        // The rate of year j from issue (the discount steps are checked to reach every year).
        auto rate_of = [&](std::int64_t j) noexcept {
            const std::int64_t r = row + std::min(issue_offset + j, period);
            const std::int64_t a = std::min(first_age + j, width - 1);
            if (!mixed) return rates[r * width + a];
            return rate(r, a, blend, female, rated, multiplier, aggravation, decimals);
        };

        double level = elapsed == 0 || growth == 1.0 ? 1.0 : std::pow(growth, -static_cast<double>(elapsed));
        double alive_issue = 1.0, alive = 1.0;            // survival from issue, from the valuation date
        double benefits_issue = 0.0, annuity_issue = 0.0;  // present values at issue
        double benefits = 0.0, annuity = 0.0;              // present values at the valuation date
        std::int64_t j = 0;
        // The years before the valuation date count towards the net premium at issue only; no
        // survival benefit falls in them (they precede any deferral), every premium is due.
        for (const std::int64_t before = std::min(elapsed, years); j < before; ++j, level *= growth) {
            const double q = rate_of(j);
            const double p = 1.0 - q;
            double value = death * q * v[(j + 1) * m];
            if (term >= 0 && j - elapsed == term - 1) value += endowment * p * v[(j + 1) * m];
            benefits_issue += alive_issue * value * level;
            annuity_issue += alive_issue * v[j * m];
            alive_issue *= p;
        }
        std::int64_t walked = 0;  // years recorded from the valuation date
        for (; j < years && alive != 0.0; ++j, level *= growth) {
            const std::int64_t k = j - elapsed;
            const double q = rate_of(j);
            const double p = 1.0 - q;
            const bool premium_due = premium_term < 0 || k < premium_term;
            const bool paying = survival != 0.0 && k >= deferral;
            const bool maturing = term >= 0 && k == term - 1;
            // Benefits of the year per life at its start, discounted to the step origin t0.
            auto year_benefits = [&](std::int64_t t0) noexcept {
                double value = death * q * v[t0 + m];
                if (paying) value += survival * within_year(q, v, t0);
                if (maturing) value += endowment * p * v[t0 + m];
                return value * level;
            };
            const double year_pv = alive * year_benefits(k * m);
            const double due_pv = premium_due ? alive * v[k * m] : 0.0;
            benefits += year_pv;
            annuity += due_pv;
            if (elapsed > 0 && !settings_.flat) {
                benefits_issue += alive_issue * year_benefits(j * m);
                if (premium_due) annuity_issue += alive_issue * v[j * m];
                alive_issue *= p;
            }
            if (static_cast<std::size_t>(k) < kept) {
                const auto y = static_cast<std::size_t>(k);
                if (flows != nullptr) {
                    // Sums that do not depend on the premium go straight into the chunk's sums.
                    flows[kInForce * kept + y] += alive;
                    flows[kDeaths * kept + y] += alive * q;
                    flows[kDeathBenefits * kept + y] += alive * q * death * level;
                    if (paying) flows[kSurvivalBenefits * kept + y] += alive * survival * level * expected_payments(q);
                    if (maturing) flows[kEndowments * kept + y] += alive * p * endowment * level;
                }
                // Every slot of the year is written: the years walked are all that is read back.
                records->slot(Records::kAlive)[y] = alive;
                records->slot(Records::kPremiumDue)[y] = premium_due ? alive : 0.0;
                records->slot(Records::kBenefitPv)[y] = year_pv;
                records->slot(Records::kAnnuityPv)[y] = due_pv;
            }
            alive *= p;
            walked = k + 1;
        }
        if (elapsed == 0) {
            benefits_issue = benefits;
            annuity_issue = annuity;
        } else if (settings_.flat) {
            // At one rate the years from the valuation date are worth, at issue, their value at
            // the valuation date discounted over the years run, for the lives still there.
            const double back = alive_issue * v[std::min(elapsed, years) * m];
            benefits_issue += back * benefits;
            annuity_issue += back * annuity;
        }
        const double net = annuity_issue > 0.0 ? benefits_issue / annuity_issue : std::numeric_limits<double>::quiet_NaN();
        const double premium = std::isnan(given_premium) ? net : given_premium;
        const std::size_t stride = settings_.scenarios * b.n;
        const std::size_t at_policy = s * b.n + i;
        results[kPvBenefits * stride + at_policy] = benefits;
        results[kPvPremiums * stride + at_policy] = premium * annuity;
        results[kNetPremium * stride + at_policy] = net;
        results[kReserve * stride + at_policy] = benefits - premium * annuity;
        if (records == nullptr) return;
        const std::size_t span = std::min(static_cast<std::size_t>(walked), kept);
        if (reserves != nullptr) {
            // Backwards, so that a reserve late in the term is not the difference of two large sums.
            double ahead = 0.0;
            for (std::size_t y = kept; y-- > 0;) {
                if (y >= span) {
                    reserves[y] = 0.0;
                    continue;
                }
                ahead += records->slot(Records::kBenefitPv)[y] - premium * records->slot(Records::kAnnuityPv)[y];
                const double base = records->slot(Records::kAlive)[y] * v[static_cast<std::int64_t>(y) * m_];
                reserves[y] = base > 0.0 ? ahead / base : 0.0;
            }
        }
        if (flows != nullptr) {
            for (std::size_t y = 0; y < span; ++y) {
                flows[kPremiums * kept + y] += premium * records->slot(Records::kPremiumDue)[y];
            }
        }
    }

private:
    // The policy's rate at a bank row and age: its unisex mix, then its rating, as a blended or
    // modified table would hold them.
    double rate(std::int64_t row, std::int64_t age, double blend, std::int64_t female, bool rated, double multiplier,
                double aggravation, int decimals) const noexcept {
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

    // The survival payments of 1 a year within one year starting at discount step t, per life
    // at its start, discounted.
    double within_year(double q, const double* v, std::int64_t t) const noexcept {
        if (m_ == 1) return settings_.due ? v[t] : (1.0 - q) * v[t + 1];
        const int first = settings_.due ? 0 : 1;
        if (q >= 1.0 || settings_.interpolation == Interpolation::linear) {
            // Linear within the year: the sums of v and of v times the time, made once per call.
            const std::size_t at = static_cast<std::size_t>(v - discount_.factors) + static_cast<std::size_t>(t);
            return weights_[2 * at] - q * weights_[2 * at + 1];
        }
        double sum = 0.0;
        if (settings_.interpolation == Interpolation::exponential) {
            const double step = std::pow(1.0 - q, 1.0 / m_);
            double alive = first == 0 ? 1.0 : step;
            for (int l = first; l < first + m_; ++l, alive *= step) sum += v[t + l] * alive;
            return sum / m_;
        }
        for (int l = first; l < first + m_; ++l) sum += v[t + l] * fraction_alive(q, static_cast<double>(l) / m_);
        return sum / m_;
    }

    // The same payments undiscounted.
    double expected_payments(double q) const noexcept {
        if (m_ == 1) return settings_.due ? 1.0 : 1.0 - q;
        double sum = 0.0;
        const int first = settings_.due ? 0 : 1;
        // Linear within the year: 1 - q times the mean time of the instalments.
        if (q >= 1.0 || settings_.interpolation == Interpolation::linear) return 1.0 - q * mean_time_;
        for (int l = first; l < first + m_; ++l) sum += fraction_alive(q, static_cast<double>(l) / m_);
        return sum / m_;
    }

    const Bank& bank_;
    const Discount& discount_;
    const Settings& settings_;
    int m_;
    double mean_time_ = 0.0;       // mean of the instalment times l/m within a year
    std::vector<double> weights_;  // linear-year weights by (basis, step), m > 1 only
};

}  // namespace

std::size_t steps_needed(const Bank& bank, const Block& block, const Settings& settings) noexcept {
    std::int64_t most = 0;
    for (std::size_t i = 0; i < block.n; ++i) most = std::max(most, years_from_issue(bank, block, i));
    return static_cast<std::size_t>(most + 1) * static_cast<std::size_t>(settings.m) + 1;
}

void value_block(const Bank& bank, const Discount& discount, const Settings& settings, const Block& block,
                 const Outputs& out, unsigned threads) {
    const std::size_t chunks = (block.n + kChunk - 1) / kChunk;
    const bool record = settings.reserves || settings.flows;
    const std::size_t per_chunk = settings.scenarios * kFlows * settings.years;
    if (settings.flows) std::fill(out.flows, out.flows + chunks * per_chunk, 0.0);
    const Valuer valuer(bank, discount, settings);
    const std::size_t workers = std::max<std::size_t>(1, std::min<std::size_t>(threads, chunks));
    // Every buffer is made here, before any thread starts: nothing allocates on the threads.
    std::vector<Records> scratch;
    if (record) scratch.assign(workers, Records(settings.years));
    auto run = [&](std::size_t worker) noexcept {
        Records* records = record ? &scratch[worker] : nullptr;
        const std::size_t from = chunks * worker / workers, to = chunks * (worker + 1) / workers;
        for (std::size_t c = from; c < to; ++c) {
            const std::size_t end = std::min(block.n, (c + 1) * kChunk);
            for (std::size_t i = c * kChunk; i < end; ++i) {
                for (std::size_t s = 0; s < settings.scenarios; ++s) {
                    double* reserves =
                        settings.reserves ? out.reserves + (s * block.n + i) * settings.years : nullptr;
                    double* flows = settings.flows ? out.flows + c * per_chunk + s * kFlows * settings.years : nullptr;
                    valuer(block, i, s, records, out.results, reserves, flows);
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
