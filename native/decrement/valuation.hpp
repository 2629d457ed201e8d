// Module function `_value_block`: the valuation kernel over one block of policies.
#pragma once

#include "pyutil/ref.hpp"

namespace veltrane::decrement {

void bind_valuation(PyObject* module);

}  // namespace veltrane::decrement
