// Presentation of a table: decimals and data-frame views.
#include "decrement/table.hpp"

namespace veltrane::decrement {

PyMethodDef presentation_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
