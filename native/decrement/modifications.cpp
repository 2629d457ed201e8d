// Modifications of a table's working decrement vector: modify_qx and its engine.
#include "decrement/table.hpp"

namespace veltrane::decrement {

PyMethodDef modification_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
