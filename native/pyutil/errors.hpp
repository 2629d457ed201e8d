// Failures across the C API boundary. A Python error already set travels as PyErrSet;
// kernels throw standard exceptions. Every slot body runs inside guard(), which maps
// both to the interpreter's error value, so no C++ exception reaches the interpreter.
#pragma once

#include "pyutil/ref.hpp"

#include <exception>
#include <new>
#include <stdexcept>
#include <string>

namespace veltrane::py {

// A Python exception is set and propagates as this C++ exception.
struct PyErrSet {
    PyErrSet() noexcept;
};

[[noreturn]] void throw_error_set();

inline PyObject* require(PyObject* p) {
    if (p == nullptr) throw_error_set();
    return p;
}
inline int require(int status) {
    if (status < 0) throw_error_set();
    return status;
}
// Wraps a new reference returned by the C API, throwing when it is null.
inline ref check(PyObject* p) {
    if (p == nullptr) throw_error_set();
    return ref::steal(p);
}

// Sets `type` with a message formatted as PyUnicode_FromFormat does (%S, %R, %U, %s, %d...).
[[noreturn]] void raise(PyObject* type, const char* format, ...);
[[noreturn]] void raise_str(PyObject* type, const std::string& message);
// Raises `type` with a ready message object (a str).
[[noreturn]] void raise_obj(PyObject* type, PyObject* message);

// Issues a warning; a warning filter that turns it into an error raises PyErrSet.
void warn(PyObject* category, const std::string& message, int stacklevel);
void warn_obj(PyObject* category, PyObject* message, int stacklevel);

// Translates the C++ exception in flight into a Python exception.
void set_from_current_exception() noexcept;

// Holds the error in flight for the life of the object (so clean-up code may call the C API)
// and sets it again at the end, replacing any error the clean-up left.
class SavedError {
public:
    SavedError() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
        exc_ = PyErr_GetRaisedException();
#else
        PyErr_Fetch(&type_, &exc_, &traceback_);
#endif
    }
    SavedError(const SavedError&) = delete;
    SavedError& operator=(const SavedError&) = delete;
    ~SavedError() {
        PyErr_Clear();
#if PY_VERSION_HEX >= 0x030C0000
        PyErr_SetRaisedException(exc_);
#else
        PyErr_Restore(type_, exc_, traceback_);
#endif
    }

private:
#if PY_VERSION_HEX < 0x030C0000
    PyObject* type_ = nullptr;
    PyObject* traceback_ = nullptr;
#endif
    PyObject* exc_ = nullptr;
};

template <class F>
PyObject* guard(F&& body) noexcept {
    try {
        return body();
    } catch (...) {
        set_from_current_exception();
        return nullptr;
    }
}

template <class F>
int guard_int(F&& body) noexcept {
    try {
        return body();
    } catch (...) {
        set_from_current_exception();
        return -1;
    }
}

}  // namespace veltrane::py
