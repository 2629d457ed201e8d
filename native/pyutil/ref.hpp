// Owning handle for PyObject*: the one place where reference counts are managed.
// A py::ref owns exactly one reference (or none); it is move-only, and is built only
// through the named constructors steal() (a new reference) and borrow() (increfs).
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

namespace veltrane::py {

class ref {
public:
    ref() noexcept = default;
    ref(const ref&) = delete;
    ref& operator=(const ref&) = delete;
    ref(ref&& other) noexcept : p_(other.p_) { other.p_ = nullptr; }
    ref& operator=(ref&& other) noexcept {
        if (this != &other) {
            PyObject* old = p_;
            p_ = other.p_;
            other.p_ = nullptr;
            Py_XDECREF(old);
        }
        return *this;
    }
    ~ref() { Py_XDECREF(p_); }

    // Takes over a new reference (may be null).
    static ref steal(PyObject* p) noexcept { return ref(p); }
    // Shares a borrowed reference (may be null).
    static ref borrow(PyObject* p) noexcept {
        Py_XINCREF(p);
        return ref(p);
    }
    // A second owner of the same object.
    ref dup() const noexcept { return borrow(p_); }

    PyObject* get() const noexcept { return p_; }
    // Borrowed view that reads null as None.
    PyObject* or_none() const noexcept { return p_ ? p_ : Py_None; }
    // A new reference for returning to the interpreter (None when empty).
    PyObject* new_reference() const noexcept {
        PyObject* o = or_none();
        Py_INCREF(o);
        return o;
    }
    PyObject* release() noexcept { return std::exchange(p_, nullptr); }
    void reset() noexcept { Py_CLEAR(p_); }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    bool is_none() const noexcept { return p_ == nullptr || p_ == Py_None; }

private:
    explicit ref(PyObject* p) noexcept : p_(p) {}
    PyObject* p_ = nullptr;
};

}  // namespace veltrane::py
