// The module slots that state what an extension supports beyond one interpreter holding the
// GIL: nothing. NumPy's C API is process-wide (no sub-interpreters), and tables are mutable
// objects without locks, so a free-threaded build keeps the GIL on for these modules.
#pragma once

#include "pyutil/ref.hpp"

#if PY_VERSION_HEX >= 0x030C0000
#define VELTRANE_INTERPRETER_SLOT {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#else
#define VELTRANE_INTERPRETER_SLOT
#endif

#if PY_VERSION_HEX >= 0x030D0000
#define VELTRANE_GIL_SLOT {Py_mod_gil, Py_MOD_GIL_USED},
#else
#define VELTRANE_GIL_SLOT
#endif

// Both slots, to be placed before the terminating {0, nullptr} entry.
#define VELTRANE_SUPPORT_SLOTS VELTRANE_INTERPRETER_SLOT VELTRANE_GIL_SLOT
