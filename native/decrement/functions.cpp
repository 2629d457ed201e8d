// The actuarial functions of a table: lx, px, qx, tpx, tqx and dx.
#include "decrement/table.hpp"

namespace veltrane::decrement {

void add_function_class_entries(ModuleState*, PyObject*) {}

PyMethodDef function_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
