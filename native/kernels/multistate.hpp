// The active-disabled-dead model as an annual Markov chain: a life moves at the end of each
// year, with the tables' one-year rates as the dependent probabilities of each move (from
// active: die q^a, become disabled i; from disabled: die q^i, recover r; else stay), or, as an
// option, moves to the other live state at mid-year and faces half a year of its mortality.
// Pure arithmetic over spans: the callers check that every reachable year is possible
// (impossible_year) before running the chain, which then never reads a rate sum above 1.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

namespace veltrane::kernels::multistate {

// The one-year rates of one move by age: `rows` rows of `ages` rates each, row-major (one row
// for a period table; a select table's durations, then its ultimate rates). A life that starts
// at age x reads row min(first + k, rows - 1) in its k-th year: the select diagonal.
// A mortality table (`ends_life`) ends every life at its last age ages - 1 (rate 1 there and
// beyond); any other table gives its published rate at its last age and 0 beyond it.
struct Rates {
    std::span<const double> values;
    std::size_t rows = 0;
    std::size_t ages = 0;
    std::size_t first = 0;
    bool ends_life = false;

    double at(std::size_t age, std::size_t year) const noexcept {
        if (ends_life ? age + 1 >= ages : age >= ages) return ends_life ? 1.0 : 0.0;
        const std::size_t last = rows - 1;
        const std::size_t row = first + year < last ? first + year : last;
        return values[row * ages + age];
    }
};

struct Model {
    Rates active_death;
    Rates incidence;
    Rates disabled_death;
    Rates recovery;  // rows = 0, ages = 0: no recovery
    // Moves between the live states at mid-year, followed by half a year of the new state's
    // mortality within the same year (false: every move at the end of the year).
    bool mid_year = false;
    // The first age at which every life is dead: one past the later of the two mortality ends.
    std::size_t end_age() const noexcept {
        const std::size_t a = active_death.ages, d = disabled_death.ages;
        return a > d ? a : d;
    }
};

enum class State { active, disabled };
enum class Payable { active, disabled, alive };

// A year whose rates cannot be probabilities: a rate below 0, not a number, or a sum above
// 1 + tolerance. `year` is the year of the select diagonal the age was reached in.
struct ImpossibleYear {
    std::size_t age;
    std::size_t year;
    State state;  // the state the rates leave
    double death;
    double other;  // incidence (from active) or recovery (from disabled)
};
// The first such year over every age below end_age() and every year that can reach it.
std::optional<ImpossibleYear> impossible_year(const Model& model, double tolerance) noexcept;

// Probabilities (active, disabled, dead) after 0, 1, ..., years years from `start` at age x:
// (years + 1) rows of 3 in `out`.
void state_path(const Model& model, std::size_t x, State start, std::size_t years, std::span<double> out) noexcept;

struct AnnuityTerms {
    State start;
    Payable payable;
    int m;     // payments a year, each 1/m
    bool due;  // at the start of each period; else at its end
    double v;  // yearly discount factor
};
// Annuities of 1 a year while in the payable state(s), for ages x and terms n (whole years;
// infinity: to the end of the model), paired element by element; a span of one element goes
// with every element of the other. `out` has the longer length.
void annuity(const Model& model, const AnnuityTerms& terms, std::span<const double> x, std::span<const double> n,
             std::span<double> out) noexcept;
// 1 paid at the end of the year of death, from either live state, within n years.
void insurance(const Model& model, State start, double v, std::span<const double> x, std::span<const double> n,
               std::span<double> out) noexcept;

}  // namespace veltrane::kernels::multistate
