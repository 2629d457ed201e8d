// Member-descriptor type codes under one name for every supported interpreter: 3.12 moved
// them into Python.h with a Py_ prefix; 3.11 has them in structmember.h.
#pragma once

#include "pyutil/ref.hpp"

#if PY_VERSION_HEX >= 0x030C0000
#define VELTRANE_T_PYSSIZET Py_T_PYSSIZET
#define VELTRANE_T_OBJECT_EX Py_T_OBJECT_EX
#define VELTRANE_READONLY Py_READONLY
#else
#include <structmember.h>
#define VELTRANE_T_PYSSIZET T_PYSSIZET
#define VELTRANE_T_OBJECT_EX T_OBJECT_EX
#define VELTRANE_READONLY READONLY
#endif
