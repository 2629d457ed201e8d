// The annual chain of the active-disabled-dead model (see multistate.hpp). Each year moves the
// probabilities of the two live states with that year's rates; the dead state takes the rest.
#include "kernels/multistate.hpp"

#include <algorithm>
#include <cmath>

namespace veltrane::kernels::multistate {

namespace {

struct Step {
    double active;
    double disabled;
    double dead;
};

// The year from age x + k (k years after the start): every move at its end.
Step step(const Model& model, const Step& p, std::size_t age, std::size_t k) noexcept {
    const double qa = model.active_death.at(age, k);
    const double ia = model.incidence.at(age, k);
    const double qi = model.disabled_death.at(age, k);
    const double r = model.recovery.at(age, k);
    // A sum within the tolerance above 1 leaves nobody, rather than a negative share.
    const double stay_active = std::max(1.0 - qa - ia, 0.0);
    const double stay_disabled = std::max(1.0 - qi - r, 0.0);
    // At mid-year, a move is followed by half a year of the new state's mortality.
    const double disabled_then_dead = model.mid_year ? ia * (0.5 * qi) : 0.0;
    const double recovered_then_dead = model.mid_year ? r * (0.5 * qa) : 0.0;
    return {p.active * stay_active + p.disabled * (r - recovered_then_dead),
            p.active * (ia - disabled_then_dead) + p.disabled * stay_disabled,
            p.dead + (p.active * (qa + disabled_then_dead) + p.disabled * (qi + recovered_then_dead))};
}

Step start_of(State start) noexcept {
    return start == State::active ? Step{1.0, 0.0, 0.0} : Step{0.0, 1.0, 0.0};
}

double payable_share(const Step& p, Payable payable) noexcept {
    switch (payable) {
        case Payable::active:
            return p.active;
        case Payable::disabled:
            return p.disabled;
        case Payable::alive:
            break;
    }
    return p.active + p.disabled;
}

// Years of the chain from age x within a term n (infinite: to the end of the model).
std::size_t horizon(const Model& model, std::size_t x, double n) noexcept {
    const std::size_t end = model.end_age();
    const std::size_t left = x < end ? end - x : 0;
    if (!(n < static_cast<double>(left))) return left;
    return static_cast<std::size_t>(n);
}

double pick(std::span<const double> values, std::size_t j) noexcept { return values[values.size() == 1 ? 0 : j]; }

}  // namespace

std::optional<ImpossibleYear> impossible_year(const Model& model, double tolerance) noexcept {
    // Beyond the longest select path every year reads the same rows as the one before.
    std::size_t longest = 0;
    for (const Rates* rates : {&model.active_death, &model.incidence, &model.disabled_death, &model.recovery}) {
        if (rates->rows > rates->first + 1) longest = std::max(longest, rates->rows - 1 - rates->first);
    }
    const auto bad = [tolerance](double death, double other) {
        return !(death >= 0.0 && other >= 0.0 && death + other <= 1.0 + tolerance);
    };
    const std::size_t end = model.end_age();
    for (std::size_t age = 0; age < end; ++age) {
        for (std::size_t k = 0; k <= std::min(age, longest); ++k) {
            const double qa = model.active_death.at(age, k);
            const double ia = model.incidence.at(age, k);
            if (bad(qa, ia)) return ImpossibleYear{age, k, State::active, qa, ia};
            const double qi = model.disabled_death.at(age, k);
            const double r = model.recovery.at(age, k);
            if (bad(qi, r)) return ImpossibleYear{age, k, State::disabled, qi, r};
        }
    }
    return std::nullopt;
}

void state_path(const Model& model, std::size_t x, State start, std::size_t years, std::span<double> out) noexcept {
    Step p = start_of(start);
    for (std::size_t k = 0;; ++k) {
        out[3 * k] = p.active;
        out[3 * k + 1] = p.disabled;
        out[3 * k + 2] = p.dead;
        if (k == years) break;
        p = step(model, p, x + k, k);
    }
}

void annuity(const Model& model, const AnnuityTerms& terms, std::span<const double> x, std::span<const double> n,
             std::span<double> out) noexcept {
    // Within a year the state is that of its start: a payment at k + j/m (0 < j < m) is made in
    // the state reached at k; one at a whole k in the state reached at k.
    const double m = static_cast<double>(terms.m);
    double inner = 0.0;  // sum over 0 < j < m of v^(j/m) / m
    for (int j = 1; j < terms.m; ++j) inner += std::pow(terms.v, static_cast<double>(j) / m) / m;
    const double at_whole = 1.0 / m;
    for (std::size_t e = 0; e < out.size(); ++e) {
        const auto age = static_cast<std::size_t>(pick(x, e));
        const std::size_t years = horizon(model, age, pick(n, e));
        Step p = start_of(terms.start);
        double value = 0.0;
        double vk = 1.0;  // v^k
        for (std::size_t k = 0; k < years; ++k) {
            const double now = payable_share(p, terms.payable);
            const Step next = step(model, p, age + k, k);
            if (terms.due) {
                value += vk * now * (at_whole + inner);
            } else {
                value += vk * now * inner + vk * terms.v * payable_share(next, terms.payable) * at_whole;
            }
            p = next;
            vk *= terms.v;
        }
        out[e] = value;
    }
}

void insurance(const Model& model, State start, double v, std::span<const double> x, std::span<const double> n,
               std::span<double> out) noexcept {
    for (std::size_t e = 0; e < out.size(); ++e) {
        const auto age = static_cast<std::size_t>(pick(x, e));
        const std::size_t years = horizon(model, age, pick(n, e));
        Step p = start_of(start);
        double value = 0.0;
        double vk = v;  // v^(k + 1)
        for (std::size_t k = 0; k < years; ++k) {
            const Step next = step(model, p, age + k, k);
            value += vk * (next.dead - p.dead);
            p = next;
            vk *= v;
        }
        out[e] = value;
    }
}

}  // namespace veltrane::kernels::multistate
