// The registry of configured tables, keyed by class, name and keys.
#include "decrement/table.hpp"

namespace veltrane::decrement {

void bind_registry(PyObject*) {}

}  // namespace veltrane::decrement
