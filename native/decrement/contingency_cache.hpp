// Columns of scalar contingency values kept with the table's state: for one basis (function,
// rate, payments, method, term) the value at every whole age 0..w, computed once by the very
// kernel call that serves a vector of ages, so a cached value has the bits of an uncached one.
//
// A column belongs to the table's derived caches: invalidate_caches() (every rebuild,
// modification, reset, change of settings) drops them, a key change holds them in its
// transaction and puts them back if it rolls back, and they are read only while the l vector
// they were computed from is still the one in force. Built and read with the GIL held.
//
// A column exists only once a call with its basis has passed every check, so a call that finds
// one may skip the checks its key stands for; anything else takes the checked path.
#pragma once

#include "decrement/contingencies.hpp"

#include <bit>
#include <cmath>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace veltrane::decrement {

namespace contingencies {

enum class Kind : std::uint8_t { annuity, insurance, pure_endowment, expectation };

// A basis: the function and everything but the age that its value depends on. `variant` packs
// the function's flags (due, method, endowment, complete). Doubles compare by their bits.
struct ColumnKey {
    Kind kind;
    int m = 0;
    int variant = 0;
    double i = 0.0;
    double n = kernels::kWholeLife;

    bool operator==(const ColumnKey& o) const noexcept {
        return kind == o.kind && m == o.m && variant == o.variant &&
               std::bit_cast<std::uint64_t>(i) == std::bit_cast<std::uint64_t>(o.i) &&
               std::bit_cast<std::uint64_t>(n) == std::bit_cast<std::uint64_t>(o.n);
    }
};

// The whole number a Python int (or an integral float) holds, if it is one in [0, 2^31).
std::optional<long> whole_number(PyObject* o) noexcept;
// A term: None (or absent) for life, else a whole number >= 0.
std::optional<double> whole_term(PyObject* n) noexcept;
// A rate given as a Python float or int (not bool), as a double.
std::optional<double> plain_rate(PyObject* i) noexcept;

// The cached value of `key` at the whole age x, when the column exists for the l vector in
// force and its value there is finite (a non-finite one is left to the checked path, which
// refuses or returns it with its own diagnosis).
std::optional<double> cached(TableObject* t, const ColumnKey& key, long x) noexcept;

// The basis of an _annuity, _insurance or _pure_endowment call from its arguments (in the order
// of the function's parameters, null when not given) and of the table's ex (x, n, complete), and
// the whole age it asks for, when a column can serve it: a whole age and term given as plain
// Python numbers, a level benefit, no deferment, the first moment. The rate is the call's or the
// table's interest_rate; a rate that cannot be read leaves the call to the checked path.
struct Scalar {
    ColumnKey key;
    long x = 0;
};
std::optional<Scalar> annuity_call(TableObject* t, std::span<PyObject* const> values);
std::optional<Scalar> insurance_call(TableObject* t, std::span<PyObject* const> values);
std::optional<Scalar> pure_endowment_call(TableObject* t, std::span<PyObject* const> values);
std::optional<Scalar> expectation_call(std::span<PyObject* const> values);

// Whether calls may use and build columns (the module's test switch turns them off).
bool enabled(TableObject* t) noexcept;

// Stores `column` (computed over ages 0..w on the l vector in force) under `key`.
void store(TableObject* t, const ColumnKey& key, std::vector<double> column);

// Computes the column of `key` with `value(model, xs, ns, out)` over `lives` (the same callable
// a checked call runs), stores it, and returns its value at x as cached() would. Nothing is
// stored when the kernel reports a breakdown anywhere in the column.
template <class Value>
std::optional<double> build(TableObject* t, const ColumnKey& key, const Lives& lives, long x, Value&& value) {
    if (!enabled(t) || x < 0 || lives.source() != t->lx_raw.get()) return std::nullopt;
    const double w = actuarial::table_w(t);
    if (!(w >= static_cast<double>(x))) return std::nullopt;
    const auto size = static_cast<std::size_t>(w) + 1;
    std::vector<double> ages(size);
    for (std::size_t k = 0; k < size; ++k) ages[k] = static_cast<double>(k);
    std::vector<double> column(size);
    const double term = key.n;
    if (lives.run(ages, std::span<const double>(&term, 1), column, value)) return std::nullopt;
    store(t, key, std::move(column));
    return cached(t, key, x);
}

// The value of a checked call that `call` describes (null: none), at the rate the call validated:
// from its column, built first when missing. Null when no column serves it.
template <class Value>
std::optional<double> column_value(TableObject* t, const std::optional<Scalar>& call, double rate, const Lives& lives,
                                   Value&& value) {
    if (!call || std::bit_cast<std::uint64_t>(call->key.i) != std::bit_cast<std::uint64_t>(rate)) return std::nullopt;
    if (const std::optional<double> v = cached(t, call->key, call->x)) return v;
    return build(t, call->key, lives, call->x, value);
}

}  // namespace contingencies

// The columns of one table state (see above), owned by the table.
struct ScalarColumns {
    py::ref source;  // the l vector they were computed from (held, so no other takes its address)
    std::vector<std::pair<contingencies::ColumnKey, std::vector<double>>> columns;
};

}  // namespace veltrane::decrement
