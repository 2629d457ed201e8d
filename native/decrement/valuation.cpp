// The module function behind veltrane.valuation: `_value_block(bank, discount, ints, reals,
// m, due, interpolation, scenarios, years, reserves, flows, flat, threads)`. The arrays are the ones
// the Python layer lays out (kernels/valuation.hpp names their rows); every index is checked
// here, before the kernel runs without the GIL, so that no input can read outside them.
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

// An aligned, native 2-D array of `type`, held for the kernel's duration, whose rows are
// contiguous and do not overlap (C-contiguous, or columns cut from such an array unless
// `contiguous`).
PyArrayObject* matrix(PyObject* obj, int type, const char* name, bool contiguous = false) {
    if (!PyArray_Check(obj)) refuse(std::string(name) + " must be a NumPy array");
    auto* a = reinterpret_cast<PyArrayObject*>(obj);
    const npy_intp item = 8;
    const bool rows_apart = PyArray_NDIM(a) == 2 && PyArray_STRIDE(a, 1) == item && PyArray_STRIDE(a, 0) % item == 0 &&
                            PyArray_STRIDE(a, 0) >= PyArray_DIM(a, 1) * item;
    if (!rows_apart || (contiguous && !PyArray_IS_C_CONTIGUOUS(a)) || PyArray_TYPE(a) != type || !PyArray_ISALIGNED(a) || !PyArray_ISNOTSWAPPED(a)) {
        refuse(std::string(name) + " must be a 2-D array of " + (type == NPY_FLOAT64 ? "float64" : "int64") +
               " with contiguous rows");
    }
    return a;
}

std::size_t row_stride(PyArrayObject* a) { return static_cast<std::size_t>(PyArray_STRIDE(a, 0) / 8); }

long long whole(PyObject* obj, const char* name, long long low, long long high) {
    const long long v = PyLong_AsLongLong(obj);
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    if (v < low || v > high) refuse(std::string(name) + " out of range: " + std::to_string(v));
    return v;
}

void check_block(const kv::Bank& bank, const kv::Discount& discount, const kv::Settings& settings, const kv::Block& b) {
    const auto rows = static_cast<std::int64_t>(bank.rows);
    // The message is only made for a policy that fails.
    auto fail = [](const char* what, std::size_t i) { refuse(std::string(what) + " (policy " + std::to_string(i) + ")"); };
    for (std::size_t i = 0; i < b.n; ++i) {
        auto f = [&](kv::IntField field) { return b.ints[field * b.int_stride + i]; };
        const std::int64_t row = f(kv::kRow), period = f(kv::kPeriod), age = f(kv::kAge);
        if (row < 0 || period < 0 || row + period >= rows) fail("table row out of range", i);
        if (!std::isnan(b.reals[kv::kBlend * b.real_stride + i])) {
            const std::int64_t female = f(kv::kFemale);
            if (female < 0 || row + period + female >= rows) fail("female row out of range", i);
        }
        if (age < 0 || age > (std::int64_t{1} << 40)) fail("age out of range", i);
        if (f(kv::kElapsed) < 0 || f(kv::kElapsed) > age) fail("years since issue out of range", i);
        if (f(kv::kOffset) < 0 || f(kv::kShift) < 0 || f(kv::kShift) > (std::int64_t{1} << 40)) {
            fail("duration or age shift out of range", i);
        }
        const std::int64_t basis = f(kv::kBasis);
        if (basis < 0 || static_cast<std::size_t>(basis) + settings.scenarios > discount.bases) fail("basis out of range", i);
        if (f(kv::kTerm) < -1 || f(kv::kTerm) > 100000 || f(kv::kDeferral) < 0 || f(kv::kPremiumTerm) < -1) {
            fail("term, deferral or premium term out of range", i);
        }
        if (f(kv::kDecimals) < -400 || f(kv::kDecimals) > 400) fail("decimals out of range", i);
    }
    if (kv::steps_needed(bank, b, settings) > discount.steps) refuse("the discount factors do not reach the last year");
}

PyObject* new_array(std::initializer_list<npy_intp> shape, bool zeros) {
    std::vector<npy_intp> dims(shape);
    const int nd = static_cast<int>(dims.size());
    return py::require(zeros ? PyArray_ZEROS(nd, dims.data(), NPY_FLOAT64, 0) : PyArray_EMPTY(nd, dims.data(), NPY_FLOAT64, 0));
}

PyObject* value_block(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&]() -> PyObject* {
        if (nargs != 13) refuse("takes 13 arguments");
        PyArrayObject* bank_a = matrix(args[0], NPY_FLOAT64, "bank", true);
        PyArrayObject* discount_a = matrix(args[1], NPY_FLOAT64, "discount", true);
        PyArrayObject* ints_a = matrix(args[2], NPY_INT64, "ints");
        PyArrayObject* reals_a = matrix(args[3], NPY_FLOAT64, "reals");
        const npy_intp n = PyArray_DIM(ints_a, 1);
        if (PyArray_DIM(ints_a, 0) != kv::kIntFields || PyArray_DIM(reals_a, 0) != kv::kRealFields ||
            PyArray_DIM(reals_a, 1) != n) {
            refuse("ints and reals must have one row per field and one column per policy");
        }
        if (PyArray_DIM(bank_a, 1) < 1 || PyArray_DIM(discount_a, 1) < 1) refuse("empty bank or discount factors");
        kv::Settings settings;
        settings.m = static_cast<int>(whole(args[4], "m", 1, 12));
        settings.due = whole(args[5], "due", 0, 1) == 1;
        settings.interpolation = static_cast<kernels::Interpolation>(whole(args[6], "interpolation", 0, 2));
        settings.scenarios = static_cast<std::size_t>(whole(args[7], "scenarios", 1, 1 << 20));
        settings.years = static_cast<std::size_t>(whole(args[8], "years", 0, 100000));
        settings.reserves = whole(args[9], "reserves", 0, 1) == 1;
        settings.flows = whole(args[10], "flows", 0, 1) == 1;
        settings.flat = whole(args[11], "flat", 0, 1) == 1;
        const auto threads = static_cast<unsigned>(whole(args[12], "threads", 1, 1024));
        const kv::Bank bank{static_cast<const double*>(PyArray_DATA(bank_a)), static_cast<std::size_t>(PyArray_DIM(bank_a, 0)),
                            static_cast<std::size_t>(PyArray_DIM(bank_a, 1))};
        const kv::Discount discount{static_cast<const double*>(PyArray_DATA(discount_a)),
                                    static_cast<std::size_t>(PyArray_DIM(discount_a, 0)),
                                    static_cast<std::size_t>(PyArray_DIM(discount_a, 1))};
        const kv::Block block{static_cast<std::size_t>(n), static_cast<const std::int64_t*>(PyArray_DATA(ints_a)),
                              row_stride(ints_a), static_cast<const double*>(PyArray_DATA(reals_a)), row_stride(reals_a)};
        check_block(bank, discount, settings, block);

        const auto scenarios = static_cast<npy_intp>(settings.scenarios);
        const auto years = static_cast<npy_intp>(settings.years);
        const auto chunks = static_cast<npy_intp>((block.n + kv::kChunk - 1) / kv::kChunk);
        py::ref results = py::ref::steal(new_array({kv::kResults, scenarios, n}, false));
        py::ref reserves = settings.reserves ? py::ref::steal(new_array({scenarios, n, years}, true)) : py::ref::borrow(Py_None);
        py::ref flows = settings.flows ? py::ref::steal(new_array({chunks, scenarios, kv::kFlows, years}, true)) : py::ref::borrow(Py_None);
        const kv::Outputs out{py::f64_data(results.get()), settings.reserves ? py::f64_data(reserves.get()) : nullptr,
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
     "_value_block(bank, discount, ints, reals, m, due, interpolation, scenarios, years, reserves, flows, flat, "
     "threads)\n"
     "--\n\nValue one block of policies (internal: see veltrane.valuation)."},
};

}  // namespace

void bind_valuation(PyObject* module) { py::add_functions(module, functions); }

}  // namespace veltrane::decrement
