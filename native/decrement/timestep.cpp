// The time-stepped actuarial state used by projections.
#include "decrement/table.hpp"

namespace veltrane::decrement {

PyMethodDef timestep_methods[] = {
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
