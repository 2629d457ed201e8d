// Text forms of a table: the multi-line summary (metadata, keys, modifications, and the
// sample rates that concrete tables append) and the one-line str() and repr() forms.
#include "decrement/arguments.hpp"
#include "decrement/table.hpp"

#include "kernels/rounding.hpp"

#include <string>
#include <vector>

namespace veltrane::decrement {
namespace {

std::string text(PyObject* obj) {
    py::ref s = py::check(PyObject_Str(obj));
    return utf8(s.get());
}

std::string class_name(PyObject* self) {
    py::ref name = type_name_of(self);
    return utf8(name.get());
}

std::string join(const std::vector<std::string>& parts, const char* separator) {
    std::string out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i) out += separator;
        out += parts[i];
    }
    return out;
}

void taxonomy(TableObject* t, std::vector<std::string>& lines) {
    py::ref got = py::check(PyObject_CallMethod(t->table.or_none(), "_taxonomy_lines", nullptr));
    py::ref iter = py::check(PyObject_GetIter(got.get()));
    while (py::ref line = py::ref::steal(PyIter_Next(iter.get()))) lines.push_back("  " + text(line.get()));
    if (PyErr_Occurred()) py::throw_error_set();
}

bool starts_with(const std::string& s, std::string_view prefix) { return s.rfind(prefix, 0) == 0; }

std::string after_colon(const std::string& s) {
    const auto colon = s.find(':');
    std::string rest = colon == std::string::npos ? std::string() : s.substr(colon + 1);
    const auto first = rest.find_first_not_of(" \t");
    const auto last = rest.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : rest.substr(first, last - first + 1);
}

std::string summary(PyObject* self) {
    TableObject* t = as_table(self);
    const Names& n = t->st->names;
    std::vector<std::string> lines;
    if (is_uninitialised(t)) {
        lines.push_back(class_name(self) + ": (uninitialised)");
        lines.push_back("Metadata: none (allocated by __new__ without __init__)");
        return join(lines, "\n");
    }
    py::ref name = table_name(t);
    lines.push_back(class_name(self) + ": " + text(name.get()));
    const bool generational = source_flag(t, n.generational.get());
    const bool select = source_flag(t, n.select.get());
    // Only the pending flag picks the layout: a select table that left the pending state with
    // its sex and duration (still without a cohort) prints the ready form.
    if (t->metadata_pending) {
        std::vector<std::string> needs;
        if (t->sex.is_none()) needs.emplace_back("sex");
        if (generational && t->cohort.is_none()) needs.emplace_back("cohort");
        if (select && !t->select_duration_set) needs.emplace_back("duration");
        if (needs.empty()) needs.emplace_back("metadata");  // as the refusal of calculations says it
        lines.push_back("Metadata: pending (needs: " + join(needs, ", ") + ")");
        lines.push_back("Sex: " + text(t->sex.or_none()));
        taxonomy(t, lines);
        lines.push_back("w (current): " + text(t->w_mod.or_none()));
        return join(lines, "\n");
    }
    lines.push_back("Sex: " + text(t->sex.or_none()));
    if (str_equals(t->sex.get(), "u") && !t->unisex_blend.is_none()) {
        py::ref b = py::check(PyNumber_Float(t->unisex_blend.get()));
        // The female weight is 1 - b as computed, in the float's own text (0.30000000000000004
        // for b = 0.7): the weight the blend multiplies by.
        py::ref female = py::check(PyFloat_FromDouble(1.0 - PyFloat_AS_DOUBLE(b.get())));
        const std::string bs = text(b.get());
        lines.push_back("Unisex blend: " + bs + " (male weight=" + bs + ", female weight=" + text(female.get()) + ")");
    }
    taxonomy(t, lines);
    if (generational) lines.push_back("Cohort: " + text(t->cohort.or_none()));
    if (select) lines.push_back("Duration: " + (t->duration.is_none() ? std::string("ult") : text(t->duration.get())));
    lines.push_back("w (current): " + text(t->w_mod.or_none()));
    lines.push_back(std::string("Modified: ") + (t->modified ? "True" : "False"));
    if (!t->modifications_applied.is_none() && PyObject_Length(t->modifications_applied.get()) > 0) {
        std::vector<std::string> descriptors;
        py::ref iter = py::check(PyObject_GetIter(t->modifications_applied.get()));
        while (py::ref d = py::ref::steal(PyIter_Next(iter.get()))) descriptors.push_back(text(d.get()));
        if (PyErr_Occurred()) py::throw_error_set();
        std::vector<std::string> shown;
        for (const std::string& d : descriptors) {
            if (!starts_with(d, "omega_truncated_by_")) shown.push_back(d);
        }
        lines.push_back("Modifications applied: " + join(shown, ", "));
        for (const std::string& d : descriptors) {
            if (starts_with(d, "omega_truncated_by_combination:")) {
                lines.push_back("Note: table_combination truncated omega (" + after_colon(d) + ")");
            } else if (starts_with(d, "omega_truncated_by_certainty:")) {
                lines.push_back("Note: modify truncated omega at certainty (" + after_colon(d) + ")");
            }
        }
    }
    return join(lines, "\n");
}

// The first and the last `n` of 0..count-1, as the sample printing takes them.
std::pair<std::vector<long>, std::vector<long>> first_and_last(long count, long n) {
    if (count < n) n = count;
    std::vector<long> first, last;
    for (long a = 0; a < n; ++a) first.push_back(a);
    for (long a = count > n ? count - n : 0; a < count; ++a) last.push_back(a);
    return {first, last};
}

void append_samples(PyObject* self, PyObject* lines, PyObject* symbol_obj, PyObject* decimals_obj, PyObject* rate_at_age) {
    TableObject* t = as_table(self);
    if (!PyList_Check(lines)) py::raise(PyExc_TypeError, "lines must be a list of str");
    // A table without rates has nothing to sample; its summary says what it lacks.
    if (is_uninitialised(t) || t->metadata_pending || t->decrement.is_none()) return;
    const std::string symbol = text(symbol_obj);
    const long decimals = PyLong_AsLong(decimals_obj);
    if (decimals == -1 && PyErr_Occurred()) py::throw_error_set();
    auto add = [&](const std::string& line) {
        py::ref s = py::check(PyUnicode_FromStringAndSize(line.data(), static_cast<Py_ssize_t>(line.size())));
        py::require(PyList_Append(lines, s.get()));
    };
    auto value_text = [](double v) {
        py::ref f = py::check(PyFloat_FromDouble(v));
        return text(f.get());
    };
    const bool modified = !t->modifications_applied.is_none() && PyObject_Length(t->modifications_applied.get()) > 0;
    if (!modified) {
        py::ref w_obj = py::ref::borrow(t->w_mod.or_none());
        const long w = PyLong_AsLong(w_obj.get());
        if (w == -1 && PyErr_Occurred()) py::throw_error_set();
        const auto [first, last] = first_and_last(w + 1, 5);
        for (auto [title, ages] : {std::pair{"first", &first}, std::pair{"last", &last}}) {
            add("Sample " + symbol + " values (" + title + " 5):");
            for (long age : *ages) {
                py::ref a = py::check(PyLong_FromLong(age));
                py::ref v = py::check(PyObject_CallOneArg(rate_at_age, a.get()));
                add("  " + symbol + "(" + std::to_string(age) + ") = " + text(v.get()));
            }
        }
        return;
    }
    if (t->decrement.is_none() || t->decrement_base.is_none()) py::raise(PyExc_ValueError, "table has no rates to sample");
    std::span<const double> mod = py::f64_cspan(t->decrement.get());
    std::span<const double> base = py::f64_cspan(t->decrement_base.get());
    const auto [first, last] = first_and_last(static_cast<long>(mod.size()), 5);
    for (auto [title, ages] : {std::pair{"first", &first}, std::pair{"last", &last}}) {
        add("Sample " + symbol + " values (" + title + " 5):");
        for (long age : *ages) {
            const auto i = static_cast<std::size_t>(age);
            const std::string orig =
                i < base.size() ? value_text(kernels::round_to(base[i], static_cast<int>(decimals))) : "N/A";
            add("  " + symbol + "(" + std::to_string(age) + ") = " + value_text(mod[i]) + " (original: " + orig + ")");
        }
    }
}

PyObject* Table_summary(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        (void)args;
        const Py_ssize_t given = nargs + (kwnames != nullptr ? PyTuple_GET_SIZE(kwnames) : 0);
        if (given != 0) py::raise(PyExc_TypeError, "summary() takes no arguments (%zd given)", given);
        const std::string s = summary(self);
        return PyUnicode_FromStringAndSize(s.data(), static_cast<Py_ssize_t>(s.size()));
    });
}

// Keywords are matched here rather than by the interpreter, whose messages would name the
// internal base type instead of the table's class.
PyObject* Table_append_samples(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        auto a = parse_arguments<4>("_append_decrement_rate_sample_summary",
                                    {"lines", "rate_symbol", "decimals", "rate_at_age"}, 4, args, nargs, kwnames);
        append_samples(self, a.values[0], a.values[1], a.values[2], a.values[3]);
        Py_RETURN_NONE;
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

// The age range is written with an en dash; %s decodes it from UTF-8 (the format itself is ASCII).
constexpr const char* kEnDash = "\u2013";

}  // namespace

// "{class}(table='{name}', sex='{sex}', cohort={cohort}, modified={modified}, age_range=0–{w})"
PyObject* Table_str(PyObject* self) {
    return py::guard([&] {
        TableObject* t = as_table(self);
        py::ref klass = type_name_of(self);
        if (is_uninitialised(t)) return PyUnicode_FromFormat("%U(uninitialised)", klass.get());
        py::ref name = table_name(t);
        return PyUnicode_FromFormat("%U(table='%S', sex='%S', cohort=%S, modified=%s, age_range=0%s%S)", klass.get(),
                                    name.get(), t->sex.or_none(), t->cohort.or_none(), t->modified ? "True" : "False",
                                    kEnDash, t->w_mod.or_none());
    });
}

PyObject* Table_repr(PyObject* self) {
    return py::guard([&] {
        TableObject* t = as_table(self);
        py::ref klass = type_name_of(self);
        if (is_uninitialised(t)) return PyUnicode_FromFormat("<%U (uninitialised)>", klass.get());
        py::ref name = table_name(t);
        return PyUnicode_FromFormat("<%U table='%S' sex='%S' cohort=%S modified=%s age_range=0%s%S>", klass.get(),
                                    name.get(), t->sex.or_none(), t->cohort.or_none(), t->modified ? "True" : "False",
                                    kEnDash, t->w_mod.or_none());
    });
}

PyMethodDef summary_methods[] = {
    {"summary", FASTCALL_KW(Table_summary), METH_FASTCALL | METH_KEYWORDS,
     "summary($self, /)\n--\n\nA report of the table: name, keys, structure, omega in force and modifications.\n"
     "It never fails for want of keys: a table that lacks some lists them (``Metadata: pending``)."},
    {"_append_decrement_rate_sample_summary", FASTCALL_KW(Table_append_samples), METH_FASTCALL | METH_KEYWORDS,
     "_append_decrement_rate_sample_summary($self, /, lines, rate_symbol, decimals, rate_at_age)\n--\n\n"
     "Append five sample rates from each end of the table to ``lines`` (with the base rate beside\n"
     "each modified one); nothing for a table that has no rates yet."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
