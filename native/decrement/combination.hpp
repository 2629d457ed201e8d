// What modify_qx (modifications.cpp) shares with the competing-decrement merge
// (combination.cpp): the working vector's positions in words, the truncation at certainty,
// the combination mode and the table_combination step. All of it works on local copies and
// writes nothing into any table.
#pragma once

#include "decrement/table.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace veltrane::decrement {

// Text forms of Python objects and numbers, as an f-string would write them.
std::string str_of(PyObject* obj);
std::string format_of(PyObject* obj);  // format(obj, "")
std::string float_text(double v, char code, int precision);  // format(v, ".{precision}{code}"); 'r' is repr

// Position i of a working vector whose index 0 holds age `offset` (the earlier age shifts):
// "age {i}", or "index {i} (calendar age {offset + i} after age_shift={offset})".
std::string where_age(std::size_t i, std::size_t offset);
// The same, but "index {i} (age {i})" without a shift.
std::string where_index(std::size_t i, std::size_t offset);

struct CertaintyCut {
    long long old_w = 0;
    long long new_w = 0;
    std::string where;   // where_age of the certain rate
    std::string detail;  // "{old}->{new} at {where}"
};

// Caps q at 1; when a certain rate (>= 1 - tol) is followed by a live one and lies below w,
// cuts q after it and describes the cut.
std::optional<CertaintyCut> truncate_at_certainty(std::vector<double>& q, long long w, std::size_t offset);

struct CombinationMode {
    py::ref mode;  // the string as given, or "independent"
    bool explicit_mode = false;
    bool udd = false;
};

// Validates the combination_mode key of a modification mapping, wherever it stands.
CombinationMode parse_combination_mode(PyObject* modifications);

// The table_combination key: checks the other tables in `value` against the host `self`,
// merges their aligned rates into q (which may then be cut at certainty, lowering w) and
// appends the descriptors to the list `descriptors`. Issues the base-year and truncation
// warnings (from C, stack level 1 is the caller's line).
// When `causes` is given it receives what the merge read: the host's rates and the others'
// aligned to them, labelled by table name, so that the rates of each cause can be told apart.
struct CauseInputs {
    std::vector<py::ref> labels;              // str, the host first
    std::vector<std::vector<double>> rates;   // one per label, the host's length
    bool udd = false;
};
void combine_tables(PyObject* self, PyObject* value, std::vector<double>& q, long long& w, std::size_t offset,
                    const CombinationMode& mode, PyObject* descriptors, CauseInputs* causes = nullptr);

// The split kept beside a merged vector: (decrement, labels, udd, causes x ages rates).
py::ref cause_split_of(PyObject* decrement, const CauseInputs& causes);

}  // namespace veltrane::decrement
