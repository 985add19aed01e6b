// A call's arguments onto the parameters tape (envelope/params_tape.h), in one walk with per-value dispatch.
// Exact built-in plain values (float, int, bool, str, and lists, tuples and dicts of values) go straight onto
// the tape; every other value, and a plain one this walk does not take (an int beyond 64 bits, text with a lone
// surrogate, a dict whose keys are no field names, a container met a second time), goes through its converter
// and onto the tape as an array entry. Either way the bytes and the errors are the converters'.
#pragma once

#include <Python.h>

#include <vector>

#include "convert/budget.h"
#include "envelope/params_tape.h"

namespace PythonVeltraDataArray::detail {

// Puts the arguments on `tape`: the items of `obj` when it is a tuple or a list, otherwise the elements of the
// cell array `obj` converts to. The tape points into the objects added to `held` (long texts' UTF-16 bytes):
// keep them until the message is written. False with exactly one Python exception set; the tape is then to be
// cleared.
bool putArguments(PyObject* obj, foundation::protobuf::common::ParamsTape& tape, CallBudget& budget,
                  std::vector<Ref>& held);

// For tests: with the plain case off, every value goes through its converter.
bool plainCaseOn();
void setPlainCase(bool on);

}  // namespace PythonVeltraDataArray::detail
