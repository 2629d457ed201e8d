// The module function behind veltrane.valuation: `_value_block(bank, discount, groups, ints,
// reals, n, m, due, interpolation, scenarios, years, reserves, flows, flat, threads, results,
// offset)`. The arrays are the ones the Python layer lays out (kernels/valuation.hpp names their
// fields); every index is checked here, before the kernel runs without the GIL, so that no input
// can read or write outside them. `results` is None (a new array is returned) or the caller's
// array, written at columns offset .. offset + n.
#include "decrement/valuation.hpp"

#include "kernels/valuation.hpp"
#include "pyutil/module_functions.hpp"
#include "pyutil/numpy.hpp"

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace veltrane::decrement {
namespace {

namespace kv = kernels::valuation;

[[noreturn]] void refuse(const std::string& message) { py::raise_str(PyExc_ValueError, "_value_block: " + message); }

const char* type_name(int type) { return type == NPY_FLOAT64 ? "float64" : "int64"; }

// An aligned, native, C-contiguous 2-D array of `type`, held by the caller for the kernel's duration.
PyArrayObject* matrix(PyObject* obj, int type, const char* name) {
    if (!PyArray_Check(obj)) refuse(std::string(name) + " must be a NumPy array");
    auto* a = reinterpret_cast<PyArrayObject*>(obj);
    if (PyArray_NDIM(a) != 2 || PyArray_TYPE(a) != type || !PyArray_ISCARRAY_RO(a) || !PyArray_ISNOTSWAPPED(a)) {
        refuse(std::string(name) + " must be a C-contiguous 2-D array of " + type_name(type));
    }
    return a;
}

// The columns of a tuple of `count` arrays: each aligned, native, contiguous and 1-D of `type`,
// with a value per policy (n) or one value for every policy.
template <class T, std::size_t N>
std::array<kv::Column<T>, N> columns(PyObject* obj, int type, const char* name, npy_intp n) {
    if (!PyTuple_Check(obj) || PyTuple_GET_SIZE(obj) != static_cast<Py_ssize_t>(N)) {
        refuse(std::string(name) + " must be a tuple of " + std::to_string(N) + " arrays, one per field");
    }
    std::array<kv::Column<T>, N> out;
    for (std::size_t f = 0; f < N; ++f) {
        PyObject* item = PyTuple_GET_ITEM(obj, static_cast<Py_ssize_t>(f));
        auto* a = reinterpret_cast<PyArrayObject*>(item);
        if (!PyArray_Check(item) || PyArray_NDIM(a) != 1 || PyArray_TYPE(a) != type || !PyArray_ISCARRAY_RO(a) ||
            !PyArray_ISNOTSWAPPED(a) || (PyArray_DIM(a, 0) != n && PyArray_DIM(a, 0) != 1)) {
            refuse(std::string(name) + " field " + std::to_string(f) + " must be a contiguous 1-D array of " +
                   type_name(type) + " with one value per policy, or one value");
        }
        out[f] = kv::Column<T>{static_cast<const T*>(PyArray_DATA(a)), PyArray_DIM(a, 0) == n ? std::size_t{1} : 0};
    }
    return out;
}

long long whole(PyObject* obj, const char* name, long long low, long long high) {
    const long long v = PyLong_AsLongLong(obj);
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    if (v < low || v > high) refuse(std::string(name) + " out of range: " + std::to_string(v));
    return v;
}

// Raises for the first policy whose fields are out of range; the message is only made for it.
void check_policies(const kv::Block& b, std::int64_t groups, const kv::Discount& discount, const kv::Settings& settings) {
    auto fail = [](const char* what, std::size_t i) { refuse(std::string(what) + " (policy " + std::to_string(i) + ")"); };
    for (std::size_t i = 0; i < b.n; ++i) {
        auto f = [&](kv::IntField field) { return b.ints[field][i]; };
        const std::int64_t age = f(kv::kAge);
        if (f(kv::kGroup) < 0 || f(kv::kGroup) >= groups) fail("group out of range", i);
        if (age < 0 || age > (std::int64_t{1} << 40)) fail("age out of range", i);
        if (f(kv::kElapsed) < 0 || f(kv::kElapsed) > age) fail("years since issue out of range", i);
        if (f(kv::kOffset) < 0 || f(kv::kOffset) > (std::int64_t{1} << 40) || f(kv::kShift) < 0 ||
            f(kv::kShift) > (std::int64_t{1} << 40)) {
            fail("duration or age shift out of range", i);
        }
        const std::int64_t basis = f(kv::kBasis);
        if (basis < 0 || static_cast<std::size_t>(basis) + settings.scenarios > discount.bases) {
            fail("basis out of range", i);
        }
        if (f(kv::kTerm) < -1 || f(kv::kTerm) > 100000 || f(kv::kDeferral) < 0 || f(kv::kPremiumTerm) < -1) {
            fail("term, deferral or premium term out of range", i);
        }
    }
}

void check_block(const kv::Bank& bank, const kv::Discount& discount, const kv::Settings& settings, const kv::Block& b) {
    const auto rows = static_cast<std::int64_t>(bank.rows);
    // The message is only made for what fails.
    auto fail = [](const char* what, const char* whose, std::size_t i) {
        refuse(std::string(what) + " (" + whose + " " + std::to_string(i) + ")");
    };
    for (std::size_t g = 0; g < b.group_count; ++g) {
        const std::int64_t* f = b.groups + g * kv::kGroupFields;
        const std::int64_t row = f[kv::kRow], period = f[kv::kPeriod], female = f[kv::kFemale];
        if (row < 0 || period < 0 || row + period >= rows) fail("table row out of range", "group", g);
        if (female < 0 || row + period + female >= rows) fail("female row out of range", "group", g);
        if (f[kv::kDecimals] < -400 || f[kv::kDecimals] > 400) fail("decimals out of range", "group", g);
    }
    const auto groups = static_cast<std::int64_t>(b.group_count);
    check_policies(b, groups, discount, settings);
    if (kv::steps_needed(bank, b, settings) > discount.steps) refuse("the discount factors do not reach the last year");
}

// An array the caller gives for the results: float64, aligned, native, writeable, (kResults,
// scenarios, >= columns), contiguous along its last axis and with rows that do not overlap.
void check_results(PyArrayObject* a, npy_intp scenarios, npy_intp columns) {
    const bool shaped = PyArray_Check(reinterpret_cast<PyObject*>(a)) && PyArray_NDIM(a) == 3 &&
                        PyArray_DIM(a, 0) == kv::kResults && PyArray_DIM(a, 1) == scenarios && PyArray_DIM(a, 2) >= columns;
    if (!shaped || PyArray_TYPE(a) != NPY_FLOAT64 || !PyArray_ISALIGNED(a) || !PyArray_ISNOTSWAPPED(a) ||
        !PyArray_ISWRITEABLE(a) || PyArray_STRIDE(a, 2) != 8 || PyArray_STRIDE(a, 1) < PyArray_DIM(a, 2) * 8 ||
        PyArray_STRIDE(a, 0) < PyArray_DIM(a, 1) * PyArray_STRIDE(a, 1) || PyArray_STRIDE(a, 1) % 8 != 0 ||
        PyArray_STRIDE(a, 0) % 8 != 0) {
        refuse("results must be a writeable float64 array (4, scenarios, at least offset + n), contiguous by row");
    }
}

PyObject* new_array(std::initializer_list<npy_intp> shape, bool zeros) {
    std::vector<npy_intp> dims(shape);
    const int nd = static_cast<int>(dims.size());
    return py::require(zeros ? PyArray_ZEROS(nd, dims.data(), NPY_FLOAT64, 0) : PyArray_EMPTY(nd, dims.data(), NPY_FLOAT64, 0));
}

PyObject* value_block(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&]() -> PyObject* {
        if (nargs != 17) refuse("takes 17 arguments");
        PyArrayObject* bank_a = matrix(args[0], NPY_FLOAT64, "bank");
        PyArrayObject* discount_a = matrix(args[1], NPY_FLOAT64, "discount");
        PyArrayObject* groups_a = matrix(args[2], NPY_INT64, "groups");
        if (PyArray_DIM(groups_a, 1) != kv::kGroupFields) refuse("groups must have one column per group field");
        const npy_intp n = static_cast<npy_intp>(whole(args[5], "n", 0, std::int64_t{1} << 40));
        const auto ints = columns<std::int64_t, kv::kIntFields>(args[3], NPY_INT64, "ints", n);
        const auto reals = columns<double, kv::kRealFields>(args[4], NPY_FLOAT64, "reals", n);
        if (PyArray_DIM(bank_a, 1) < 1 || PyArray_DIM(discount_a, 1) < 1) refuse("empty bank or discount factors");
        kv::Settings settings;
        settings.m = static_cast<int>(whole(args[6], "m", 1, 12));
        settings.due = whole(args[7], "due", 0, 1) == 1;
        settings.interpolation = static_cast<kernels::Interpolation>(whole(args[8], "interpolation", 0, 2));
        settings.scenarios = static_cast<std::size_t>(whole(args[9], "scenarios", 1, 1 << 20));
        settings.years = static_cast<std::size_t>(whole(args[10], "years", 0, 100000));
        settings.reserves = whole(args[11], "reserves", 0, 1) == 1;
        settings.flows = whole(args[12], "flows", 0, 1) == 1;
        settings.flat = whole(args[13], "flat", 0, 1) == 1;
        const auto threads = static_cast<unsigned>(whole(args[14], "threads", 1, 1024));
        const kv::Bank bank{static_cast<const double*>(PyArray_DATA(bank_a)), static_cast<std::size_t>(PyArray_DIM(bank_a, 0)),
                            static_cast<std::size_t>(PyArray_DIM(bank_a, 1))};
        const kv::Discount discount{static_cast<const double*>(PyArray_DATA(discount_a)),
                                    static_cast<std::size_t>(PyArray_DIM(discount_a, 0)),
                                    static_cast<std::size_t>(PyArray_DIM(discount_a, 1))};
        const kv::Block block{static_cast<std::size_t>(n), static_cast<const std::int64_t*>(PyArray_DATA(groups_a)),
                              static_cast<std::size_t>(PyArray_DIM(groups_a, 0)), ints, reals};
        check_block(bank, discount, settings, block);

        const auto scenarios = static_cast<npy_intp>(settings.scenarios);
        const auto years = static_cast<npy_intp>(settings.years);
        const auto chunks = static_cast<npy_intp>((block.n + kv::kChunk - 1) / kv::kChunk);
        py::ref results = args[15] == Py_None ? py::ref::steal(new_array({kv::kResults, scenarios, n}, false))
                                              : py::ref::borrow(args[15]);
        const npy_intp offset = static_cast<npy_intp>(whole(args[16], "offset", 0, std::int64_t{1} << 40));
        auto* results_a = reinterpret_cast<PyArrayObject*>(results.get());
        if (args[15] != Py_None) check_results(results_a, scenarios, offset + n);
        py::ref reserves = settings.reserves ? py::ref::steal(new_array({scenarios, n, years}, true)) : py::ref::borrow(Py_None);
        py::ref flows =
            settings.flows ? py::ref::steal(new_array({chunks, scenarios, kv::kFlows, years}, true)) : py::ref::borrow(Py_None);
        const kv::Outputs out{py::f64_data(results.get()) + (args[15] == Py_None ? 0 : offset),
                              static_cast<std::size_t>(PyArray_STRIDE(results_a, 0) / 8),
                              static_cast<std::size_t>(PyArray_STRIDE(results_a, 1) / 8),
                              settings.reserves ? py::f64_data(reserves.get()) : nullptr,
                              settings.flows ? py::f64_data(flows.get()) : nullptr};
        {
            // The arrays are owned by this call (the inputs by the caller's references).
            py::gil_released nogil;
            kv::value_block(bank, discount, settings, block, out, threads);
        }
        return py::check(PyTuple_Pack(3, results.get(), reserves.get(), flows.get())).release();
    });
}

PyMethodDef functions[] = {
    {"_value_block", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(value_block)), METH_FASTCALL,
     "_value_block(bank, discount, groups, ints, reals, n, m, due, interpolation, scenarios, years, reserves, "
     "flows, flat, threads, results, offset)\n"
     "--\n\nValue one block of policies (internal: see veltrane.valuation)."},
};

}  // namespace

void bind_valuation(PyObject* module) { py::add_functions(module, functions); }

}  // namespace veltrane::decrement
