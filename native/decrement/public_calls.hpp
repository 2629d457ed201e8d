// `_PublicCall`: the object a public Python function of the package is replaced by at run time
// when most of its calls only hand their arguments to a compiled function. A call with a table
// and keyword-only arguments goes straight to the compiled function (which may answer
// NotImplemented to pass the call on); every other call (two lives, keywords for positional
// parameters, wrong counts) runs the Python function, which stays the reference: its signature,
// documentation and messages are the public ones.
#pragma once

#include "pyutil/ref.hpp"

namespace veltrane::decrement {

void bind_public_calls(PyObject* module);

}  // namespace veltrane::decrement
