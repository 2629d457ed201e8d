// Many tables from one constructor call: the argument alignment helpers.
#include "decrement/table.hpp"

namespace veltrane::decrement {

void bind_vectorial_helpers(PyObject*) {}

}  // namespace veltrane::decrement
