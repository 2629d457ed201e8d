// The module functions behind veltrane.multistate (multistate.cpp).
#pragma once

#include "pyutil/ref.hpp"

namespace veltrane::decrement {

// Binds _disability_check, _disability_states, _disability_annuity and _disability_insurance.
void bind_multistate(PyObject* module);

}  // namespace veltrane::decrement
