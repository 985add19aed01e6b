// The eleven typed array types (veltra.double ... veltra.logical) and what the constructor, the capsule and
// the slots share about them.
//
// An object either owns an Array (an "owner") or is a view of part of an owner's elements (a sub-array
// taken by indexing). Views read and write through their owner, so `x[0][1] = 5` changes `x`.
//
// Storage is copy-on-write underneath (Array copies share it). Exported buffers pin it: while an owner or any
// of its views has a buffer exported, the owner's storage is held by that owner alone (it was detached on the
// first export if it was shared, and nothing shares it until the last export ends), so element writes land
// where the exported views look, and the memory stays put. Reshaping an owner changes its dimensions only:
// views and exported buffers keep their own shape and strides over the same elements.
#pragma once

#include <Python.h>

#include <cstdint>
#include <iterator>
#include <vector>

#include "arraypkg/common.h"
#include "arraypkg/element_cast.h"
#include "veltradata/array.h"

namespace PythonVeltraDataArray::arraypkg {

constexpr int kTypeCount = static_cast<int>(std::size(foundation::veltradata::kNumericKinds)) + 1;  // and logical

// The real kind behind each package type, in the order the types are created.
extern const ArrayType kTypeKinds[kTypeCount];
extern const char* const kTypeNames[kTypeCount];  // "double", ...

struct Body {
    Array array;                     // owners: the elements (dims == shape)
    PyObject* owner = nullptr;       // views: the owner (a strong reference); owners: null
    std::vector<std::uint64_t> shape;
    std::vector<std::int64_t> strides;  // in elements
    std::uint64_t offset = 0;           // views: first element within the owner, in elements
    Py_ssize_t exports = 0;  // owners: buffers exported from it or from its views
};

struct ArrayObject {
    PyObject_HEAD
    PyObject* weakrefs;
    Body* body;
};

// Creates the eleven types; false with a Python error set on failure. Idempotent.
bool createTypes();
PyObject* typeObject(int index);  // borrowed

// Index of a package type, -1 for other types.
int typeIndexOf(PyTypeObject* type);
// The package type that holds arrays of `kind` (complex kinds by their real kind); -1 for other kinds.
int typeIndexForKind(ArrayType kind);

inline bool isPackageObject(PyObject* o) { return typeIndexOf(Py_TYPE(o)) >= 0; }
inline Body& bodyOf(PyObject* o) { return *reinterpret_cast<ArrayObject*>(o)->body; }
inline ArrayObject* ownerOf(PyObject* o) {
    Body& b = bodyOf(o);
    return reinterpret_cast<ArrayObject*>(b.owner ? b.owner : o);
}
inline ArrayType kindOf(PyObject* o) { return ownerOf(o)->body->array.getType(); }

// A new owner of the type that holds `a`'s kind. Throws (PyErrorSet/TypeError) for kinds no type holds.
PyObject* wrapArray(Array a);
// A new owner of the given type index. `a` must be of that type's real or complex kind.
PyObject* newOwner(int typeIndex, Array a);

// The elements of a package object as an Array that the caller may keep: the owner's own storage (shared,
// no copy) unless it is pinned by an export or the object is a view, in which case a contiguous copy. The
// dimensions are the object's size, with a one-dimensional view of n elements becoming 1-by-n.
Array arrayOf(PyObject* o);

// Column-major position of the first element and its read/write addresses.
const std::uint8_t* readAddress(PyObject* o);
std::uint8_t* writeAddress(PyObject* o);  // may detach the owner's shared storage (never while pinned)

// A Python scalar (float, int, bool, complex) for the element at `p` of kind `kind`.
PyObject* scalarToPython(const std::uint8_t* p, ArrayType kind);

// Builds an Array of the type index's kind from an initializer (see the constructor's documentation).
// `size` may be null. Returns with PyErrorSet thrown on failure.
Array buildArray(int typeIndex, PyObject* initializer, PyObject* size, bool isComplex);

// The elements of `value` for assignment into a region of `shape` of kind `kind`: either `shape`-many
// elements in column-major order or a single element to repeat. Sets `single`.
Array assignmentValue(ArrayType kind, PyObject* value, const std::vector<std::uint64_t>& shape, bool& single);

// Parses a size argument (a sequence of non-negative integers, or an integer) into dimensions.
std::vector<std::uint64_t> parseSize(PyObject* size, const char* what);

}  // namespace PythonVeltraDataArray::arraypkg
