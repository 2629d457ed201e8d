// Module functions from PyMethodDef tables: each bound as a builtin whose __module__ is the
// module's name and whose self is the module (so it reaches the module state).
#pragma once

#include "pyutil/errors.hpp"
#include "pyutil/ref.hpp"

#include <span>

namespace veltrane::py {

inline void add_functions(PyObject* module, std::span<PyMethodDef> defs) {
    ref name = check(PyModule_GetNameObject(module));
    for (PyMethodDef& def : defs) {
        ref function = check(PyCMethod_New(&def, module, name.get(), nullptr));
        require(PyModule_AddObjectRef(module, def.ml_name, function.get()));
    }
}

inline void add_function(PyObject* module, PyMethodDef& def) { add_functions(module, std::span(&def, 1)); }

}  // namespace veltrane::py
