// Copies of a built table for further cohorts of one many-table call (stamping.cpp).
#pragma once

#include "decrement/state.hpp"

#include <memory>
#include <optional>
#include <vector>

namespace veltrane::decrement {

struct TrendRecipe;

// The attribute that DecrementTable.__init_subclass__ sets on the `__init__` of a class that
// declares `_INIT_BUILDS_FROM_ARGUMENTS = True`: the function itself.
inline constexpr const char* kInitMarker = "_builds_table_from_arguments";

class CohortStamper {
public:
    // A stamper for instances of `type` that differ from `prototype` (built by __init__ in
    // this call) only by their cohort; nothing when the prototype or the class do not allow it.
    static std::optional<CohortStamper> from(PyTypeObject* type, PyObject* prototype);
    // A new instance: the prototype with `cohort` (an int, validated here).
    py::ref stamp(PyObject* cohort);
    PyObject* prototype() const { return prototype_.get(); }

    CohortStamper(CohortStamper&&) noexcept;
    CohortStamper& operator=(CohortStamper&&) noexcept;
    ~CohortStamper();

private:
    CohortStamper();
    PyTypeObject* type_ = nullptr;
    py::ref prototype_;
    std::vector<Py_ssize_t> slots_;  // offsets of the Python classes' object slots
    std::unique_ptr<TrendRecipe> recipe_;
    py::ref years_;  // cohort -> validated year, for this call
    py::ref rates_;  // year -> the base rates first made for it in this call (never written)
    long long current_year_ = 0;  // the calendar year, read once for the call
};

}  // namespace veltrane::decrement
