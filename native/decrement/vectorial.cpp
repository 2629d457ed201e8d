// Many tables from one constructor call. The argument lists are aligned (zip) or crossed
// (cartesian) and checked as a whole; only then is any instance allocated, and each one is
// initialised through its class's own __init__, as an ordinary construction would be.
// Invariant: an argument error leaves nothing behind; no instance has been allocated yet.
#include "decrement/arguments.hpp"
#include "decrement/stamping.hpp"
#include "decrement/table.hpp"
#include "pyutil/module_functions.hpp"

#include <array>
#include <cstdio>
#include <optional>
#include <span>
#include <utility>

namespace veltrane::decrement {
namespace {

using List = std::vector<py::ref>;

// The constructor's own parameters: every other keyword goes on to __init__.
constexpr std::array<const char*, 8> kConstructorNames = {
    "table_name", "sex", "cohort", "unisex_blend", "duration", "cartesian", "return_dict", "pending"};

bool is_sequence_arg(PyObject* o) { return PyList_Check(o) || PyTuple_Check(o); }

// Owned references to the items of a list or tuple (the caller's list may change later).
List items_of(PyObject* seq) {
    py::ref fast = py::check(PySequence_Fast(seq, "expected a list or a tuple"));
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(fast.get());
    PyObject** items = PySequence_Fast_ITEMS(fast.get());
    List out;
    out.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) out.push_back(py::ref::borrow(items[i]));
    return out;
}

py::ref to_pylist(const List& values) {
    py::ref out = py::check(PyList_New(static_cast<Py_ssize_t>(values.size())));
    for (std::size_t i = 0; i < values.size(); ++i) {
        PyList_SET_ITEM(out.get(), static_cast<Py_ssize_t>(i), values[i].new_reference());
    }
    return out;
}

// `one` (a list of length 1) repeated n times.
List repeated(const List& one, std::size_t n) {
    List out;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i) out.push_back(one.front().dup());
    return out;
}

// Zip broadcasting of one axis against the anchor (the sex list). Companions are lists
// already aligned with the anchor: they grow with it.
void align_pair(List& anchor, List& axis, const char* anchor_name, const char* axis_name,
                std::span<List* const> companions) {
    const std::size_t n = anchor.size();
    const std::size_t m = axis.size();
    if (n == m) return;
    if (n == 1) {
        anchor = repeated(anchor, m);
        for (List* c : companions) *c = repeated(*c, m);
        return;
    }
    if (m == 1) {
        axis = repeated(axis, n);
        return;
    }
    py::raise(PyExc_ValueError,
              "%s sequence length (%zu) must match %s sequence length (%zu) when both have length > 1", anchor_name, n,
              axis_name, m);
}

struct NamedList {
    List* list;
    const char* name;
};

// A scalar sex with a blend sequence: the blend fixes the instance count, so every list of
// length 1 is repeated to it; a list of another length cannot be paired.
void expand_to_blend(std::span<const NamedList> lists, std::size_t blend_count) {
    for (const NamedList& l : lists) {
        if (l.list->size() != 1 && l.list->size() != blend_count) {
            py::raise(PyExc_ValueError,
                      "unisex_blend sequence length (%zu) must match %s sequence length (%zu) when sex is scalar",
                      blend_count, l.name, l.list->size());
        }
    }
    for (const NamedList& l : lists) {
        if (l.list->size() == 1 && blend_count != 1) *l.list = repeated(*l.list, blend_count);
    }
}

// Each element of a blend sequence; `sexes[i]` is the sex of instance i (all "u" in
// cartesian mode). Elements past the instance count are left to the length check.
void check_blend_sequence(const List& blends, const List& sexes, bool all_u) {
    for (std::size_t i = 0; i < blends.size(); ++i) {
        PyObject* e = blends[i].get();
        PyObject* sex = (!all_u && i < sexes.size()) ? sexes[i].get() : nullptr;
        const bool for_u = all_u || str_equals(sex, "u");
        if (e == Py_None) {
            if (for_u) py::raise(PyExc_TypeError, "unisex_blend element %zu must be float, got None", i);
            continue;
        }
        const std::optional<double> w = numeric::scalar_value(e);
        if (!w) {
            py::ref type = type_name_of(e);
            py::raise(PyExc_TypeError, "unisex_blend element %zu must be numeric, got %U", i, type.get());
        }
        py::ref shown = py::check(PyFloat_FromDouble(*w));
        if (!(0.0 <= *w && *w <= 1.0)) {
            py::raise(PyExc_ValueError, "unisex_blend element %zu must be in [0.0, 1.0], got %S", i, shown.get());
        }
        // A pending shell without a sex (None) may still receive 'u'.
        if (!for_u && sex != nullptr && sex != Py_None) {
            py::raise(PyExc_ValueError,
                      "unisex_blend element %zu=%S provided for sex='%S'; unisex_blend is only valid when sex='u'", i,
                      shown.get(), sex);
        }
    }
}

// First occurrences, in order (a dict built from the keys). Blends compare by their value.
List distinct(const List& values, bool by_float = false) {
    py::ref seen = py::check(PyDict_New());
    List out;
    for (const py::ref& v : values) {
        py::ref key = by_float ? py::check(PyNumber_Float(v.get())) : v.dup();
        const int found = py::require(PyDict_Contains(seen.get(), key.get()));
        if (found == 1) continue;
        py::require(PyDict_SetItem(seen.get(), key.get(), Py_None));
        out.push_back(v.dup());
    }
    return out;
}

// Every table name of the call, opened once.
class Sources {
public:
    explicit Sources(ModuleState* st) : st_(st), opened_(py::check(PyDict_New())) {}

    PyObject* get(PyObject* name) {
        PyObject* found = PyDict_GetItemWithError(opened_.get(), name);
        if (found != nullptr) return found;
        if (PyErr_Occurred()) py::throw_error_set();
        py::ref source = py::check(PyObject_CallOneArg(st_->table_source, name));
        py::require(PyDict_SetItem(opened_.get(), name, source.get()));
        return source.get();  // the dict keeps it alive
    }

    py::ref attr(PyObject* name, const py::ref& attribute) {
        return py::check(PyObject_GetAttr(get(name), attribute.get()));
    }

    bool flag(PyObject* name, const py::ref& attribute) {
        py::ref value = attr(name, attribute);
        return py::require(PyObject_IsTrue(value.get())) == 1;
    }

private:
    ModuleState* st_;
    py::ref opened_;
};

// The unisex column that a "u" instance without a blend reads: "{prefix}_u", or for a select
// table the column of the duration ("qx_u_s1", "qx_u_ult"), as __init__ looks it up. Null when
// the duration cannot name a column; __init__ then refuses the duration itself.
py::ref unisex_column(ModuleState* st, Sources& sources, PyObject* name, PyObject* prefix, PyObject* duration) {
    const Names& n = st->names;
    if (!sources.flag(name, n.select)) return py::check(PyUnicode_FromFormat("%U_u", prefix));
    if (str_equals(duration, "ult")) return py::check(PyUnicode_FromFormat("%U_u_ult", prefix));
    if (!PyLong_Check(duration)) return {};
    int overflow = 0;
    const long long d = PyLong_AsLongLongAndOverflow(duration, &overflow);
    if (d == -1 && PyErr_Occurred()) py::throw_error_set();
    if (overflow != 0) return {};
    py::ref start_obj = sources.attr(name, n.start_duration);
    py::ref period_obj = sources.attr(name, n.select_period);
    const long long start = start_obj.is_none() ? 1 : PyLong_AsLongLong(start_obj.get());
    const long long period = period_obj.is_none() ? 0 : PyLong_AsLongLong(period_obj.get());
    if (PyErr_Occurred()) py::throw_error_set();
    if (d < start) return {};
    if (d - start >= period) return py::check(PyUnicode_FromFormat("%U_u_ult", prefix));
    return py::check(PyUnicode_FromFormat("%U_u_s%lld", prefix, d));
}

// A "u" instance without a blend needs the table's own unisex rates.
class NativeUnisexCheck {
public:
    NativeUnisexCheck(ModuleState* st, Sources& sources, PyObject* class_name)
        : st_(st), sources_(sources), class_name_(class_name), done_(py::check(PySet_New(nullptr))) {}

    void require(PyObject* name, PyObject* duration) {
        py::ref key = py::check(PyTuple_Pack(2, name, duration));
        if (py::require(PySet_Contains(done_.get(), key.get())) == 1) return;
        py::require(PySet_Add(done_.get(), key.get()));
        const Names& n = st_->names;
        py::ref type = sources_.attr(name, n.table_type);
        PyObject* prefix = PyDict_GetItemWithError(st_->prefix_map, type.get());
        if (prefix == nullptr) {
            if (PyErr_Occurred()) py::throw_error_set();
            py::raise(PyExc_ValueError, "Unknown table_type '%S' in table '%S'", type.get(), name);
        }
        py::ref prefix_ref = py::ref::borrow(prefix);
        py::ref column = unisex_column(st_, sources_, name, prefix_ref.get(), duration);
        if (!column) return;
        py::ref data = sources_.attr(name, n.data);
        py::ref columns = py::check(PyObject_GetAttr(data.get(), n.columns.get()));
        if (py::require(PySequence_Contains(columns.get(), column.get())) == 1) return;
        py::raise(PyExc_ValueError,
                  "unisex_blend parameter is required when creating instance for sex='u' because table '%S' lacks "
                  "column '%U'.\nExample: %U('%S', ('m', 'f', 'u'), unisex_blend=0.5)",
                  name, column.get(), class_name_, name);
    }

private:
    ModuleState* st_;
    Sources& sources_;
    PyObject* class_name_;
    py::ref done_;  // (name, duration) pairs already checked
};

// What each instance is built from: columns of equal length (zip) or axes to cross
// (cartesian; table name x sex x cohort x duration x blend, the last varying fastest).
struct Plan {
    List names, sexes, cohorts, durations, blends;
    bool cartesian = false;
    std::size_t count = 0;

    struct Combination {
        PyObject* name;
        PyObject* sex;
        PyObject* cohort;
        PyObject* duration;
        PyObject* blend;
    };

    Combination at(std::size_t i) const {
        if (!cartesian) return {names[i].get(), sexes[i].get(), cohorts[i].get(), durations[i].get(), blends[i].get()};
        const std::size_t b = i % blends.size();
        i /= blends.size();
        const std::size_t d = i % durations.size();
        i /= durations.size();
        const std::size_t c = i % cohorts.size();
        i /= cohorts.size();
        const std::size_t s = i % sexes.size();
        i /= sexes.size();
        PyObject* sex = sexes[s].get();
        // A blend belongs to the "u" combinations only.
        PyObject* blend = str_equals(sex, "u") ? blends[b].get() : Py_None;
        return {names[i].get(), sex, cohorts[c].get(), durations[d].get(), blend};
    }
};

// Zip mode: the sex list is the anchor that every other list is aligned with.
void plan_zip(Plan& p, VectorialCall& call, const List& blend_list) {
    if (call.blend_sequence && !call.sex_sequence) {
        const NamedList lists[] = {{&call.sexes, "sex"},
                                   {&call.table_names, "table_name"},
                                   {&call.cohorts, "cohort"},
                                   {&call.durations, "duration"}};
        expand_to_blend(lists, blend_list.size());
    }
    align_pair(call.sexes, call.cohorts, "sex", "cohort", {});
    List* with_cohort[] = {&call.cohorts};
    align_pair(call.sexes, call.durations, "sex", "duration", with_cohort);
    List* with_both[] = {&call.cohorts, &call.durations};
    align_pair(call.sexes, call.table_names, "sex", "table_name", with_both);
    p.count = call.sexes.size();
    p.names = std::move(call.table_names);
    p.sexes = std::move(call.sexes);
    p.cohorts = std::move(call.cohorts);
    p.durations = std::move(call.durations);
}

// Cartesian mode: the axes, each without repeats, and the structure every table must share.
void plan_cartesian(Plan& p, VectorialCall& call, Sources& sources, ModuleState* st) {
    p.cartesian = true;
    p.names = distinct(call.table_names);
    const Names& n = st->names;
    const bool generational = sources.flag(p.names.front().get(), n.generational);
    const bool select = sources.flag(p.names.front().get(), n.select);
    for (const py::ref& name : p.names) {
        if (sources.flag(name.get(), n.generational) != generational) {
            py::raise(PyExc_ValueError,
                      "cartesian=True requires all table_names to have the same generational structure. Mixed "
                      "generational/period tables produce invalid combinations. Use zip mode (cartesian=False) with "
                      "cohort=[int, None, ...] instead.");
        }
    }
    for (const py::ref& name : p.names) {
        if (sources.flag(name.get(), n.select) != select) {
            py::raise(PyExc_ValueError,
                      "cartesian=True requires all table_names to have the same select structure. Mixed "
                      "select/non-select tables produce invalid combinations. Use zip mode (cartesian=False) with "
                      "duration=[int, None, ...] instead.");
        }
    }
    p.sexes = distinct(call.sexes);
    p.cohorts = distinct(call.cohorts);
    p.durations = distinct(call.durations);
    if (call.blend_sequence) {
        for (const py::ref& sex : p.sexes) {
            if (!str_equals(sex.get(), "u")) {
                py::raise(PyExc_ValueError,
                          "unisex_blend as a sequence with cartesian=True requires all sex values to be 'u' (blend is "
                          "a cartesian axis and is not valid for 'm' or 'f'). Use zip mode (cartesian=False) for "
                          "mixed sex with per-instance blends, or pass a scalar unisex_blend.");
            }
        }
    }
}

// The blend, checked against the aligned lists, and given to the instances that take one.
// `given_sexes` is the sex argument as a list, before alignment.
void assign_blends(Plan& p, const VectorialCall& call, const List& blend_list, const List& given_sexes) {
    if (call.blend_sequence) {
        if (blend_list.empty()) {
            py::raise(PyExc_ValueError, "unisex_blend sequence must contain at least one blend weight");
        }
        check_blend_sequence(blend_list, p.sexes, p.cartesian);
        if (p.cartesian) {
            p.blends = distinct(blend_list, true);
        } else {
            if (blend_list.size() != p.count) {
                py::raise(PyExc_ValueError, "unisex_blend sequence length (%zu) must match instance count (%zu)",
                          blend_list.size(), p.count);
            }
            for (const py::ref& b : blend_list) p.blends.push_back(b.dup());
        }
    } else {
        if (call.blend != Py_None) {
            if (call.sex_sequence) {
                bool any_u = false;
                for (const py::ref& sex : given_sexes) any_u = any_u || str_equals(sex.get(), "u");
                if (!any_u) {
                    py::ref shown = py::check(PyList_AsTuple(to_pylist(distinct(given_sexes)).get()));
                    py::raise(PyExc_ValueError,
                              "Cannot specify unisex_blend=%S when sex only contains %R (no 'u'). Use sex='u' or "
                              "include 'u' in the tuple to apply unisex blending.",
                              call.blend, shown.get());
                }
            }
            check_scalar_blend(call.blend, call.sex_sequence ? Py_None : given_sexes.front().get());
        }
        if (p.cartesian) {
            p.blends.push_back(py::ref::borrow(call.blend));
        } else {
            for (const py::ref& sex : p.sexes) {
                const bool takes_blend = sex.get() == Py_None || str_equals(sex.get(), "u");
                p.blends.push_back(py::ref::borrow(takes_blend ? call.blend : Py_None));
            }
        }
    }
    if (!p.cartesian) return;
    std::size_t count = 1;
    for (std::size_t size : {p.names.size(), p.sexes.size(), p.cohorts.size(), p.durations.size(), p.blends.size()}) {
        if (size != 0 && count > static_cast<std::size_t>(PY_SSIZE_T_MAX) / size) {
            py::raise(PyExc_OverflowError, "cartesian=True: too many combinations to count");
        }
        count *= size;
    }
    p.count = count;
}

void check_native_unisex(const Plan& p, NativeUnisexCheck& check) {
    if (p.cartesian) {
        if (p.blends.front().get() != Py_None) return;  // every "u" combination is blended
        bool any_u = false;
        for (const py::ref& sex : p.sexes) any_u = any_u || str_equals(sex.get(), "u");
        if (!any_u) return;
        for (const py::ref& name : p.names) {
            for (const py::ref& duration : p.durations) check.require(name.get(), duration.get());
        }
        return;
    }
    for (std::size_t i = 0; i < p.count; ++i) {
        if (str_equals(p.sexes[i].get(), "u") && p.blends[i].get() == Py_None) {
            check.require(p.names[i].get(), p.durations[i].get());
        }
    }
}

void warn_if_large(PyTypeObject* type, PyObject* class_name, std::size_t count) {
    py::ref limit_obj = py::check(
        PyObject_GetAttrString(reinterpret_cast<PyObject*>(type), "_VECTORIAL_MEMORY_WARNING_THRESHOLD"));
    const long long limit = PyLong_AsLongLong(limit_obj.get());
    if (limit == -1 && PyErr_Occurred()) py::throw_error_set();
    if (limit >= 0 && count <= static_cast<unsigned long long>(limit)) return;
    char megabytes[32];
    std::snprintf(megabytes, sizeof megabytes, "%.1f", static_cast<double>(count) * 300.0 / 1024.0);
    py::ref message = py::check(PyUnicode_FromFormat(
        "Creating %zu table instances in a single vectorial call. Each instance independently caches its actuarial "
        "data; for generational tables this may reach ~300 KB per instance (~%s MB for %zu instances). For "
        "portfolios with many distinct cohorts, consider building a dict of unique tables and passing a per-policy "
        "list to the batch API:\n"
        "    unique = {c: %U(table_name, sex, cohort=c) for c in set(cohorts)}\n"
        "    per_policy = [unique[c] for c in cohorts]",
        count, megabytes, count, class_name));
    // No Python frame stands for __new__: level 1 is the caller's line.
    py::warn_obj(PyExc_ResourceWarning, message.get(), 1);
}

// The keywords that are not the constructor's own (interest_rate, ...): names and values.
std::pair<List, List> forwarded_keywords(PyObject* kwargs) {
    List names, values;
    if (kwargs == nullptr) return {};
    Py_ssize_t pos = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(kwargs, &pos, &key, &value)) {
        bool own = false;
        for (const char* name : kConstructorNames) own = own || str_equals(key, name);
        if (own) continue;
        names.push_back(py::ref::borrow(key));
        values.push_back(py::ref::borrow(value));
    }
    return {std::move(names), std::move(values)};
}

// The cyclic collector paused while a call makes its instances: they are all alive (held
// by the result list), so a collection could free nothing, yet thousands of new tracked
// objects would set off collections that traverse every one of them again.
class CollectorPaused {
public:
    CollectorPaused() noexcept : was_enabled_(PyGC_Disable() == 1) {}
    ~CollectorPaused() {
        if (was_enabled_) PyGC_Enable();
    }
    CollectorPaused(const CollectorPaused&) = delete;
    CollectorPaused& operator=(const CollectorPaused&) = delete;

private:
    bool was_enabled_;
};

List build_instances(PyTypeObject* type, ModuleState* st, const Plan& p, bool pending, PyObject* kwargs) {
    auto [extra_names, extra_values] = forwarded_keywords(kwargs);
    py::ref kwnames = py::check(PyTuple_New(static_cast<Py_ssize_t>(4 + extra_names.size())));
    Py_ssize_t k = 0;
    for (const char* name : {"cohort", "unisex_blend", "duration", "pending"}) {
        PyTuple_SET_ITEM(kwnames.get(), k++, py::check(PyUnicode_InternFromString(name)).release());
    }
    for (const py::ref& name : extra_names) PyTuple_SET_ITEM(kwnames.get(), k++, name.new_reference());
    py::ref init = py::check(PyUnicode_InternFromString("__init__"));
    std::vector<PyObject*> argv(7 + extra_values.size());
    for (std::size_t j = 0; j < extra_values.size(); ++j) argv[7 + j] = extra_values[j].get();
    argv[6] = pending ? Py_True : Py_False;

    List instances;
    instances.reserve(p.count);
    // Instances that differ from the last one built by __init__ only by their cohort are
    // stamped from it.
    std::optional<CohortStamper> stamper;
    Plan::Combination last{};
    const CollectorPaused paused;
    auto same = [](PyObject* a, PyObject* b) { return a == b || py::require(PyObject_RichCompareBool(a, b, Py_EQ)) == 1; };
    for (std::size_t i = 0; i < p.count; ++i) {
        const Plan::Combination c = p.at(i);
        if (stamper && c.cohort != Py_None && c.blend == Py_None && same(c.name, last.name) && same(c.sex, last.sex) &&
            same(c.duration, last.duration)) {
            instances.push_back(stamper->stamp(c.cohort));
            continue;
        }
        py::ref instance = py::ref::steal(table_alloc(type, st));
        as_table(instance.get())->initialized = false;
        argv[0] = instance.get();
        argv[1] = c.name;
        argv[2] = c.sex;
        argv[3] = c.cohort;
        argv[4] = c.blend;
        argv[5] = c.duration;
        // Through Python, so that the class's own __init__ (and its keywords) runs.
        py::ref result = py::check(PyObject_VectorcallMethod(init.get(), argv.data(), 3, kwnames.get()));
        if (result.get() != Py_None) {
            py::raise(PyExc_TypeError, "__init__() should return None, not '%s'", Py_TYPE(result.get())->tp_name);
        }
        stamper.reset();
        if (!pending && c.blend == Py_None && i + 1 < p.count) {
            stamper = CohortStamper::from(type, instance.get());
            last = c;
        }
        instances.push_back(std::move(instance));
    }
    return instances;
}

// TableKey(table_name, sex, cohort, duration, unisex_blend): all five, so that instances
// differing only by duration or blend keep their own entries.
py::ref key_of(PyObject* table_key, PyObject* instance, PyObject* fallback_name) {
    TableObject* t = as_table(instance);
    py::ref name = t->table ? table_name(t) : py::ref::borrow(fallback_name);
    py::ref blend = t->unisex_blend.is_none() ? py::ref::borrow(Py_None)
                                              : py::check(PyNumber_Float(t->unisex_blend.get()));
    PyObject* args[5] = {name.get(), t->sex.or_none(), t->cohort.or_none(), t->duration.or_none(), blend.get()};
    return py::check(PyObject_Vectorcall(table_key, args, 5, nullptr));
}

// The key each combination's instance will have, from the arguments: the table's own name
// as its source gives it, the lower-cased sex, the cohort, the duration, the blend as a float.
py::ref expected_key(const Plan::Combination& c, Sources& sources, ModuleState* st, PyObject* table_key) {
    py::ref name = sources.attr(c.name, st->names.table_name);
    py::ref blend = c.blend == Py_None ? py::ref::borrow(Py_None) : py::check(PyNumber_Float(c.blend));
    PyObject* args[5] = {name.get(), c.sex, c.cohort, c.duration, blend.get()};
    return py::check(PyObject_Vectorcall(table_key, args, 5, nullptr));
}

// A dict holds one instance per key: each key that more than one combination gives is named
// in a UserWarning, before any instance is built.
void warn_repeated_keys(const Plan& p, Sources& sources, ModuleState* st, PyObject* table_key) {
    py::ref seen = py::check(PyDict_New());  // key -> True once it has been warned about
    for (std::size_t i = 0; i < p.count; ++i) {
        py::ref key = expected_key(p.at(i), sources, st, table_key);
        PyObject* found = PyDict_GetItemWithError(seen.get(), key.get());
        if (found == nullptr) {
            if (PyErr_Occurred()) py::throw_error_set();
            py::require(PyDict_SetItem(seen.get(), key.get(), Py_False));
            continue;
        }
        if (found == Py_True) continue;
        py::require(PyDict_SetItem(seen.get(), key.get(), Py_True));
        py::ref message = py::check(PyUnicode_FromFormat(
            "return_dict=True: %R occurs more than once; the dictionary keeps the last instance built for it. "
            "Use return_dict=False for a tuple of every instance.",
            key.get()));
        py::warn_obj(PyExc_UserWarning, message.get(), 1);
    }
}

}  // namespace

std::vector<py::ref> resolve_table_names(PyObject* table_name) {
    if (PyUnicode_Check(table_name)) {
        List out;
        out.push_back(py::ref::borrow(table_name));
        return out;
    }
    if (!is_sequence_arg(table_name)) {
        py::ref type = type_name_of(table_name);
        py::raise(PyExc_TypeError, "table_name element 0 must be str, got %U", type.get());
    }
    List names = items_of(table_name);
    if (names.empty()) py::raise(PyExc_ValueError, "table_name sequence must contain at least one table name");
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (!PyUnicode_Check(names[i].get())) {
            py::ref type = type_name_of(names[i].get());
            py::raise(PyExc_TypeError, "table_name element %zu must be str, got %U", i, type.get());
        }
    }
    return names;
}

PyObject* construct_many(PyTypeObject* type, VectorialCall& call) {
    ModuleState* st = state_from_type(type);
    py::ref class_name = type_name_of(reinterpret_cast<PyObject*>(type));
    List blend_list;
    if (call.blend_sequence) blend_list = items_of(call.blend);
    List given_sexes;
    for (const py::ref& sex : call.sexes) given_sexes.push_back(sex.dup());

    // The lists are paired or crossed first; the blend is checked against what they give.
    Sources sources(st);
    Plan plan;
    if (call.cartesian) {
        plan_cartesian(plan, call, sources, st);
    } else {
        plan_zip(plan, call, blend_list);
    }
    assign_blends(plan, call, blend_list, given_sexes);
    NativeUnisexCheck native(st, sources, class_name.get());
    check_native_unisex(plan, native);
    // Every name is opened before the first instance, so a missing file builds nothing.
    for (const py::ref& name : plan.names) sources.get(name.get());
    warn_if_large(type, class_name.get(), plan.count);
    py::ref table_key;
    if (call.return_dict) {
        PyObject* module = PyType_GetModuleByDef(type, &module_def);
        if (module == nullptr) py::throw_error_set();
        table_key = py::check(PyObject_GetAttrString(module, "TableKey"));
        warn_repeated_keys(plan, sources, st, table_key.get());
    }

    List instances = build_instances(type, st, plan, call.pending, call.kwargs);
    if (!call.return_dict) {
        py::ref out = py::check(PyTuple_New(static_cast<Py_ssize_t>(instances.size())));
        for (std::size_t i = 0; i < instances.size(); ++i) {
            PyTuple_SET_ITEM(out.get(), static_cast<Py_ssize_t>(i), instances[i].release());
        }
        return out.release();
    }
    // A repeated key (warned about above) keeps its first place and its last instance.
    py::ref out = py::check(PyDict_New());
    for (std::size_t i = 0; i < instances.size(); ++i) {
        py::ref key = key_of(table_key.get(), instances[i].get(), plan.at(i).name);
        py::require(PyDict_SetItem(out.get(), key.get(), instances[i].get()));
    }
    return out.release();
}

// ---- module functions ---------------------------------------------------------------------

namespace {

List sequence_argument(PyObject* value, const char* name) {
    if (!is_sequence_arg(value)) {
        py::ref type = type_name_of(value);
        py::raise(PyExc_TypeError, "%s must be a list or tuple, got %U", name, type.get());
    }
    return items_of(value);
}

std::string name_argument(PyObject* value, const char* name) {
    if (!PyUnicode_Check(value)) {
        py::ref type = type_name_of(value);
        py::raise(PyExc_TypeError, "%s must be str, got %U", name, type.get());
    }
    return utf8(value);
}

PyObject* resolve_table_name_list(PyObject*, PyObject* table_name) {
    return py::guard([&] { return to_pylist(resolve_table_names(table_name)).release(); });
}

PyObject* zip_broadcast_align_pair(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        static constexpr const char* function = "_zip_broadcast_align_pair";
        if (nargs > 2) {
            py::raise(PyExc_TypeError, "%s() takes 2 positional arguments but %zd were given", function, nargs);
        }
        const auto a = parse_arguments<5>(function, {"anchor", "axis", "anchor_name", "axis_name", "companion_lists"},
                                          2, args, nargs, kwnames);
        for (std::size_t i : {std::size_t{2}, std::size_t{3}}) {
            if (!a.given(i)) {
                py::raise(PyExc_TypeError, "%s() missing required keyword-only argument: '%s'", function,
                          i == 2 ? "anchor_name" : "axis_name");
            }
        }
        List anchor = sequence_argument(a.values[0], "anchor");
        List axis = sequence_argument(a.values[1], "axis");
        const std::string anchor_name = name_argument(a.values[2], "anchor_name");
        const std::string axis_name = name_argument(a.values[3], "axis_name");
        // Companions are the caller's lists, extended in place as the anchor grows.
        List companion_objects;
        if (a.given(4)) companion_objects = sequence_argument(a.values[4], "companion_lists");
        std::vector<List> companions;
        for (std::size_t k = 0; k < companion_objects.size(); ++k) {
            PyObject* c = companion_objects[k].get();
            if (!PyList_Check(c)) {
                py::ref type = type_name_of(c);
                py::raise(PyExc_TypeError, "companion_lists element %zu must be a list, got %U", k, type.get());
            }
            companions.push_back(items_of(c));
            if (companions.back().size() != anchor.size()) {
                py::raise(PyExc_ValueError, "companion_lists element %zu has length %zu, not the anchor's length (%zu)",
                          k, companions.back().size(), anchor.size());
            }
        }
        std::vector<List*> pointers;
        for (List& c : companions) pointers.push_back(&c);
        align_pair(anchor, axis, anchor_name.c_str(), axis_name.c_str(), pointers);
        for (std::size_t k = 0; k < companions.size(); ++k) {
            py::ref grown = to_pylist(companions[k]);
            py::require(PyList_SetSlice(companion_objects[k].get(), 0, PY_SSIZE_T_MAX, grown.get()));
        }
        py::ref left = to_pylist(anchor);
        py::ref right = to_pylist(axis);
        return py::check(PyTuple_Pack(2, left.get(), right.get())).release();
    });
}

PyObject* zip_expand_scalar_anchor_to_blend(PyObject*, PyObject* const* args, Py_ssize_t nargs,
                                            PyObject* kwnames) {
    return py::guard([&] {
        static constexpr std::array<const char*, 5> names = {"sex_list", "table_name_list", "cohort_list",
                                                             "duration_list", "blend_list"};
        const auto a = parse_arguments<5>("_zip_expand_scalar_anchor_to_blend", names, 5, args, nargs, kwnames);
        List sexes = sequence_argument(a.values[0], names[0]);
        List table_names = sequence_argument(a.values[1], names[1]);
        List cohorts = sequence_argument(a.values[2], names[2]);
        List durations = sequence_argument(a.values[3], names[3]);
        const List blends = sequence_argument(a.values[4], names[4]);
        const NamedList lists[] = {
            {&sexes, "sex"}, {&table_names, "table_name"}, {&cohorts, "cohort"}, {&durations, "duration"}};
        expand_to_blend(lists, blends.size());
        py::ref out = py::check(PyTuple_New(4));
        Py_ssize_t k = 0;
        for (const NamedList& l : lists) PyTuple_SET_ITEM(out.get(), k++, to_pylist(*l.list).release());
        return out.release();
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef vectorial_functions[] = {
    {"_resolve_table_name_list", resolve_table_name_list, METH_O,
     "_resolve_table_name_list(table_name)\n--\n\n"
     "The table names of a constructor call as a new list: a str gives a list of one, a list or\n"
     "tuple of str a list of its elements. An empty sequence raises ValueError, a non-str TypeError."},
    {"_zip_broadcast_align_pair", FASTCALL_KW(zip_broadcast_align_pair), METH_FASTCALL | METH_KEYWORDS,
     "_zip_broadcast_align_pair(anchor, axis, *, anchor_name, axis_name, companion_lists=())\n--\n\n"
     "Align two argument lists for zip construction; returns (anchor, axis) as new lists.\n\n"
     "A list of length 1 is repeated to the other's length; two longer lists must have equal\n"
     "lengths (ValueError naming anchor_name and axis_name otherwise). When the anchor is\n"
     "repeated, so is every list of companion_lists (lists already aligned with the anchor,\n"
     "of its length), in place."},
    {"_zip_expand_scalar_anchor_to_blend", FASTCALL_KW(zip_expand_scalar_anchor_to_blend),
     METH_FASTCALL | METH_KEYWORDS,
     "_zip_expand_scalar_anchor_to_blend(sex_list, table_name_list, cohort_list, duration_list, blend_list)\n--\n\n"
     "For a scalar sex with a blend sequence: return (sex, table_name, cohort, duration) as new\n"
     "lists of the blend list's length. Lists of length 1 are repeated; a list of any other\n"
     "length than the blend's raises ValueError."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

void bind_vectorial_helpers(PyObject* module) {
    py::add_functions(module, std::span(vectorial_functions).first(std::size(vectorial_functions) - 1));  // no sentinel
}

}  // namespace veltrane::decrement
