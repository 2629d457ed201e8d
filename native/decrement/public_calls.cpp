// The call-through object of public_calls.hpp.
#include "decrement/public_calls.hpp"

#include "decrement/state.hpp"
#include "pyutil/members.hpp"

#include <cstddef>

namespace veltrane::decrement {
namespace {

struct PublicCallObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    PyObject* wrapped;     // the Python function
    PyObject* compiled;    // the compiled function its table calls reach
    PyObject* table_type;  // the C type of tables
    PyObject* keywords;    // tuple of the keyword-only parameters' names
    PyObject* dict;        // __name__, __doc__, __wrapped__, ... (set by functools.update_wrapper)
    Py_ssize_t required;   // positional parameters without a default
    Py_ssize_t positional;  // positional parameters
};

PublicCallObject* as_call(PyObject* self) { return reinterpret_cast<PublicCallObject*>(self); }

bool keyword_only(const PublicCallObject* c, PyObject* kwnames) {
    if (kwnames == nullptr) return true;
    const Py_ssize_t given = PyTuple_GET_SIZE(kwnames), known = PyTuple_GET_SIZE(c->keywords);
    for (Py_ssize_t k = 0; k < given; ++k) {
        PyObject* name = PyTuple_GET_ITEM(kwnames, k);
        bool found = false;
        for (Py_ssize_t j = 0; j < known && !found; ++j) {
            PyObject* candidate = PyTuple_GET_ITEM(c->keywords, j);
            found = name == candidate || PyUnicode_Compare(name, candidate) == 0;
        }
        if (!found) return false;
    }
    return true;
}

PyObject* PublicCall_vectorcall(PyObject* self, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    const PublicCallObject* c = as_call(self);
    const Py_ssize_t n = PyVectorcall_NARGS(nargsf);
    const bool direct = n >= c->required && n <= c->positional &&
                        PyObject_TypeCheck(args[0], reinterpret_cast<PyTypeObject*>(c->table_type)) &&
                        keyword_only(c, kwnames);
    if (!direct) return PyObject_Vectorcall(c->wrapped, args, nargsf, kwnames);
    PyObject* result = PyObject_Vectorcall(c->compiled, args, nargsf, kwnames);
    if (result != Py_NotImplemented) return result;
    Py_DECREF(result);  // the compiled function leaves this call to the Python one
    return PyObject_Vectorcall(c->wrapped, args, nargsf, kwnames);
}

PyObject* PublicCall_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    PyObject *wrapped = nullptr, *compiled = nullptr, *keywords = nullptr;
    Py_ssize_t required = 0, positional = 0;
    static const char* names[] = {"wrapped", "compiled", "required", "positional", "keywords", nullptr};
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOnnO!:_PublicCall", const_cast<char**>(names), &wrapped,
                                     &compiled, &required, &positional, &PyTuple_Type, &keywords)) {
        return nullptr;
    }
    if (!PyCallable_Check(wrapped) || !PyCallable_Check(compiled) || required < 1 || positional < required) {
        PyErr_SetString(PyExc_ValueError, "_PublicCall: two callables and 1 <= required <= positional");
        return nullptr;
    }
    for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(keywords); ++k) {
        if (!PyUnicode_Check(PyTuple_GET_ITEM(keywords, k))) {
            PyErr_SetString(PyExc_ValueError, "_PublicCall: keywords must be strings");
            return nullptr;
        }
    }
    PyObject* module = PyType_GetModule(type);
    if (module == nullptr) return nullptr;
    PyObject* table_type = reinterpret_cast<PyObject*>(state_of(module)->core_type);
    py::ref self = py::ref::steal(type->tp_alloc(type, 0));
    if (!self) return nullptr;
    PublicCallObject* c = as_call(self.get());
    c->vectorcall = PublicCall_vectorcall;
    c->wrapped = Py_NewRef(wrapped);
    c->compiled = Py_NewRef(compiled);
    c->table_type = Py_NewRef(table_type);
    c->keywords = Py_NewRef(keywords);
    c->required = required;
    c->positional = positional;
    return self.release();
}

int PublicCall_traverse(PyObject* self, visitproc visit, void* arg) {
    PublicCallObject* c = as_call(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(c->wrapped);
    Py_VISIT(c->compiled);
    Py_VISIT(c->table_type);
    Py_VISIT(c->keywords);
    Py_VISIT(c->dict);
    return 0;
}

int PublicCall_clear(PyObject* self) {
    PublicCallObject* c = as_call(self);
    Py_CLEAR(c->wrapped);
    Py_CLEAR(c->compiled);
    Py_CLEAR(c->table_type);
    Py_CLEAR(c->keywords);
    Py_CLEAR(c->dict);
    return 0;
}

void PublicCall_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    PublicCall_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

// Read from a class, it stays itself (as a function in a staticmethod would), and is a routine
// to pydoc and inspect.
PyObject* PublicCall_get(PyObject* self, PyObject*, PyObject*) { return Py_NewRef(self); }

PyObject* PublicCall_repr(PyObject* self) { return PyObject_Repr(as_call(self)->wrapped); }

// Pickled by name, as a function is.
PyObject* PublicCall_reduce(PyObject* self, PyObject*) { return PyObject_GetAttrString(self, "__qualname__"); }

PyMethodDef public_call_methods[] = {
    {"__reduce__", PublicCall_reduce, METH_NOARGS, "__reduce__($self, /)\n--\n\nPickled by name."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef public_call_members[] = {
    {"__vectorcalloffset__", VELTRANE_T_PYSSIZET, offsetof(PublicCallObject, vectorcall), VELTRANE_READONLY, nullptr},
    {"__dictoffset__", VELTRANE_T_PYSSIZET, offsetof(PublicCallObject, dict), VELTRANE_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyGetSetDef public_call_getsets[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot public_call_slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(PublicCall_new)},
    {Py_tp_dealloc, reinterpret_cast<void*>(PublicCall_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(PublicCall_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(PublicCall_clear)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(PublicCall_get)},
    {Py_tp_repr, reinterpret_cast<void*>(PublicCall_repr)},
    {Py_tp_methods, public_call_methods},
    {Py_tp_members, public_call_members},
    {Py_tp_getset, public_call_getsets},
    {Py_tp_doc, const_cast<char*>("_PublicCall(wrapped, compiled, required, positional, keywords)\n--\n\n"
                                  "``wrapped`` with its calls on a table (``required`` to ``positional``\n"
                                  "arguments, keywords among ``keywords``) sent to ``compiled``.")},
    {0, nullptr},
};

PyType_Spec public_call_spec = {
    "veltrane.tables.decrement._PublicCall",
    static_cast<int>(sizeof(PublicCallObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL,
    public_call_slots,
};

}  // namespace

void bind_public_calls(PyObject* module) {
    py::ref type = py::check(PyType_FromModuleAndSpec(module, &public_call_spec, nullptr));
    py::require(PyModule_AddObjectRef(module, "_PublicCall", type.get()));
}

}  // namespace veltrane::decrement
