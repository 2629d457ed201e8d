// The scalar contingency columns of a table state (contingency_cache.hpp).
#include "decrement/contingency_cache.hpp"

#include <algorithm>
#include <array>

namespace veltrane::decrement {

void ScalarColumnsDelete::operator()(ScalarColumns* columns) const noexcept { delete columns; }

namespace contingencies {

namespace {
// Columns kept per table state: a few bases each over a few terms. The oldest goes first.
constexpr std::size_t kColumnsPerTable = 64;
constexpr long kLargestWhole = 1L << 30;
}  // namespace

std::optional<long> whole_number(PyObject* o) noexcept {
    if (PyLong_CheckExact(o)) {
        int overflow = 0;
        const long v = PyLong_AsLongAndOverflow(o, &overflow);
        if (overflow != 0 || v < 0 || v >= kLargestWhole) return std::nullopt;
        return v;
    }
    if (PyFloat_CheckExact(o)) {
        const double v = PyFloat_AS_DOUBLE(o);
        if (!(v >= 0.0 && v < static_cast<double>(kLargestWhole)) || std::floor(v) != v) return std::nullopt;
        return static_cast<long>(v);
    }
    return std::nullopt;
}

std::optional<double> whole_term(PyObject* n) noexcept {
    if (n == nullptr || n == Py_None) return kernels::kWholeLife;
    const std::optional<long> v = whole_number(n);
    if (!v) return std::nullopt;
    return static_cast<double>(*v);
}

std::optional<double> plain_rate(PyObject* i) noexcept {
    if (PyFloat_CheckExact(i)) return PyFloat_AS_DOUBLE(i);
    if (PyLong_CheckExact(i)) {
        int overflow = 0;
        const long v = PyLong_AsLongAndOverflow(i, &overflow);
        if (overflow != 0 || (v == -1 && PyErr_Occurred())) {
            PyErr_Clear();
            return std::nullopt;
        }
        return static_cast<double>(v);
    }
    return std::nullopt;
}

bool enabled(TableObject* t) noexcept { return t->st->fast_paths; }

namespace {

bool absent_or(PyObject* value, PyObject* expected) noexcept { return value == nullptr || value == expected; }

// LifeTable itself (not a subclass, which may define its own rate), or null when it cannot be had.
PyTypeObject* life_table(ModuleState* st) noexcept {
    if (st->life_table == nullptr) {
        PyObject* module = PyImport_ImportModule("veltrane.tables.life");
        st->life_table = module != nullptr ? PyObject_GetAttrString(module, "LifeTable") : nullptr;
        Py_XDECREF(module);
        if (st->life_table == nullptr) {
            PyErr_Clear();
            st->life_table = Py_NewRef(Py_None);
        }
    }
    return PyType_Check(st->life_table) ? reinterpret_cast<PyTypeObject*>(st->life_table) : nullptr;
}

std::optional<double> rate_of(TableObject* t, PyObject* i) noexcept {
    if (i != nullptr && i != Py_None) return plain_rate(i);
    // The property of a LifeTable returns its slot (None when unset): read at once, a Python
    // call saved. An unset slot raises AttributeError here and leaves the call to the checked path.
    const Names& names = t->st->names;
    PyObject* self = reinterpret_cast<PyObject*>(t);
    const bool life = Py_TYPE(self) == life_table(t->st);
    PyObject* own = PyObject_GetAttr(self, life ? names.interest_rate_slot.get() : names.interest_rate.get());
    if (own == nullptr) {
        PyErr_Clear();
        return std::nullopt;
    }
    const std::optional<double> rate = plain_rate(own);
    Py_DECREF(own);
    return rate;
}

// m: 1 when absent, kContinuous for None, else the int given (only a valid one has a column).
std::optional<int> frequency_of(PyObject* m) noexcept {
    if (m == nullptr) return 1;
    if (m == Py_None) return kernels::kContinuous;
    const std::optional<long> v = whole_number(m);
    if (!v || !PyLong_CheckExact(m)) return std::nullopt;
    return static_cast<int>(*v);
}

bool no_defer(PyObject* defer) noexcept {
    if (defer == nullptr) return true;
    const std::optional<long> v = whole_number(defer);
    return v && *v == 0;
}

bool first_moment(PyObject* moment) noexcept {
    if (moment == nullptr) return true;
    const std::optional<long> v = whole_number(moment);
    return v && *v == 1 && PyLong_CheckExact(moment);
}

// The method's code: its index in `names` (the first when absent), or -1.
template <std::size_t N>
int method_code(PyObject* method, const std::array<const char*, N>& names) noexcept {
    if (method == nullptr) return 0;
    if (!PyUnicode_CheckExact(method)) return -1;
    for (std::size_t k = 0; k < N; ++k) {
        if (PyUnicode_CompareWithASCIIString(method, names[k]) == 0) return static_cast<int>(k);
    }
    return -1;
}

// True / False (or absent: `fallback`) as 1 / 0, else -1.
int flag_of(PyObject* value, bool fallback) noexcept {
    if (value == nullptr) return fallback ? 1 : 0;
    return value == Py_True ? 1 : value == Py_False ? 0 : -1;
}

}  // namespace

// _annuity(table, x, n, i, due, m, defer, method, moment, increasing, decreasing)
std::optional<Scalar> annuity_call(TableObject* t, std::span<PyObject* const> a) {
    static constexpr std::array<const char*, 4> methods = {"exact", "udd", "woolhouse", "woolhouse2"};
    if (!enabled(t) || a.size() < 11) return std::nullopt;
    const std::optional<long> x = whole_number(a[1]);
    const std::optional<double> n = whole_term(a[2]);
    const int due = flag_of(a[4], true);
    const std::optional<int> m = frequency_of(a[5]);
    const int method = method_code(a[7], methods);
    if (!x || !n || due < 0 || !m || method < 0 || !no_defer(a[6]) || !first_moment(a[8]) ||
        !absent_or(a[9], Py_False) || !absent_or(a[10], Py_False)) {
        return std::nullopt;
    }
    const std::optional<double> i = rate_of(t, a[3]);
    if (!i) return std::nullopt;
    return Scalar{ColumnKey{Kind::annuity, *m, due | (method << 1), *i, *n}, *x};
}

// _insurance(table, x, n, i, m, defer, endowment, method, moment, increasing, decreasing)
std::optional<Scalar> insurance_call(TableObject* t, std::span<PyObject* const> a) {
    static constexpr std::array<const char*, 2> methods = {"exact", "udd"};
    if (!enabled(t) || a.size() < 11) return std::nullopt;
    const std::optional<long> x = whole_number(a[1]);
    const std::optional<double> n = whole_term(a[2]);
    const std::optional<int> m = frequency_of(a[4]);
    const int endowment = flag_of(a[6], false);
    const int method = method_code(a[7], methods);
    if (!x || !n || !m || endowment < 0 || method < 0 || !no_defer(a[5]) || !first_moment(a[8]) ||
        !absent_or(a[9], Py_False) || !absent_or(a[10], Py_False)) {
        return std::nullopt;
    }
    const std::optional<double> i = rate_of(t, a[3]);
    if (!i) return std::nullopt;
    return Scalar{ColumnKey{Kind::insurance, *m, endowment | (method << 1), *i, *n}, *x};
}

// _pure_endowment(table, x, n, i)
std::optional<Scalar> pure_endowment_call(TableObject* t, std::span<PyObject* const> a) {
    if (!enabled(t) || a.size() < 4 || a[2] == nullptr || a[2] == Py_None) return std::nullopt;
    const std::optional<long> x = whole_number(a[1]);
    const std::optional<double> n = whole_term(a[2]);
    if (!x || !n) return std::nullopt;
    const std::optional<double> i = rate_of(t, a[3]);
    if (!i) return std::nullopt;
    return Scalar{ColumnKey{Kind::pure_endowment, 0, 0, *i, *n}, *x};
}

// ex(x, n, complete)
std::optional<Scalar> expectation_call(std::span<PyObject* const> a) {
    if (a.size() < 3 || a[0] == nullptr) return std::nullopt;
    const std::optional<long> x = whole_number(a[0]);
    const std::optional<double> n = whole_term(a[1]);
    const int complete = flag_of(a[2], false);
    if (!x || !n || complete < 0) return std::nullopt;
    return Scalar{ColumnKey{Kind::expectation, 0, complete, 0.0, *n}, *x};
}

std::optional<double> cached(TableObject* t, const ColumnKey& key, long x) noexcept {
    const ScalarColumns* columns = t->scalar_columns.get();
    if (columns == nullptr || !t->lx_raw || columns->source.get() != t->lx_raw.get() || x < 0 || !enabled(t)) {
        return std::nullopt;
    }
    for (const auto& [k, column] : columns->columns) {
        if (!(k == key)) continue;
        if (static_cast<std::size_t>(x) >= column.size()) return std::nullopt;
        const double v = column[static_cast<std::size_t>(x)];
        if (!std::isfinite(v)) return std::nullopt;
        return v;
    }
    return std::nullopt;
}

void store(TableObject* t, const ColumnKey& key, std::vector<double> column) {
    if (!t->lx_raw) return;
    ScalarColumns* columns = t->scalar_columns.get();
    if (columns == nullptr || columns->source.get() != t->lx_raw.get()) {
        t->scalar_columns.reset(new ScalarColumns{t->lx_raw.dup(), {}});
        columns = t->scalar_columns.get();
    }
    auto& all = columns->columns;
    const auto same = std::find_if(all.begin(), all.end(), [&](const auto& entry) { return entry.first == key; });
    if (same != all.end()) all.erase(same);
    if (all.size() >= kColumnsPerTable) all.erase(all.begin());
    all.emplace_back(key, std::move(column));
}

}  // namespace contingencies
}  // namespace veltrane::decrement
