// Mapping of C++ failures to Python exceptions, and formatted raising helpers.
#include "pyutil/errors.hpp"

#include <cassert>
#include <cstdarg>

namespace veltrane::py {

PyErrSet::PyErrSet() noexcept { assert(PyErr_Occurred() != nullptr); }

void throw_error_set() {
    if (PyErr_Occurred() == nullptr) {
        PyErr_SetString(PyExc_SystemError, "veltrane: a C API call failed without setting an error");
    }
    throw PyErrSet{};
}

void raise(PyObject* type, const char* format, ...) {
    va_list vargs;
    va_start(vargs, format);
    PyObject* message = PyUnicode_FromFormatV(format, vargs);
    va_end(vargs);
    if (message != nullptr) {
        PyErr_SetObject(type, message);
        Py_DECREF(message);
    }
    throw PyErrSet{};
}

void raise_str(PyObject* type, const std::string& message) {
    PyObject* text = PyUnicode_FromStringAndSize(message.data(), static_cast<Py_ssize_t>(message.size()));
    if (text != nullptr) {
        PyErr_SetObject(type, text);
        Py_DECREF(text);
    }
    throw PyErrSet{};
}

void raise_obj(PyObject* type, PyObject* message) {
    PyErr_SetObject(type, message);
    throw PyErrSet{};
}

void warn(PyObject* category, const std::string& message, int stacklevel) {
    require(PyErr_WarnEx(category, message.c_str(), stacklevel));
}

void warn_obj(PyObject* category, PyObject* message, int stacklevel) {
    ref args = check(PyUnicode_AsUTF8String(message));
    require(PyErr_WarnEx(category, PyBytes_AS_STRING(args.get()), stacklevel));
}

void set_from_current_exception() noexcept {
    try {
        throw;
    } catch (const PyErrSet&) {
        if (PyErr_Occurred() == nullptr) {
            PyErr_SetString(PyExc_SystemError, "veltrane: error flagged without a Python exception");
        }
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::invalid_argument& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::domain_error& e) {
        PyErr_SetString(PyExc_ValueError, e.what());
    } catch (const std::out_of_range& e) {
        PyErr_SetString(PyExc_IndexError, e.what());
    } catch (const std::exception& e) {
        PyErr_SetString(PyExc_RuntimeError, e.what());
    } catch (...) {
        PyErr_SetString(PyExc_SystemError, "veltrane: unknown C++ exception");
    }
}

}  // namespace veltrane::py
