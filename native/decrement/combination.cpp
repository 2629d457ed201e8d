// Competing decrements from other tables merged into a host table's rates.
#include "decrement/table.hpp"

namespace veltrane::decrement {

void bind_combination_helpers(PyObject*) {}

}  // namespace veltrane::decrement
