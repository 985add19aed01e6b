#include "arraypkg/typed_array.h"

#include <structmember.h>

#include <cmath>
#include <complex>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>

#include "arraypkg/buffer_format.h"
#include "arraypkg/strided_copy.h"
#include "pyutil/numbers.h"
#include "veltradata/array_factory.h"
#include "veltradata/impl.h"
#include "veltradata/raw_visit.h"
#include "veltradata/typed_view.h"

namespace PythonVeltraDataArray::arraypkg {

using foundation::veltradata::elementSize;
using foundation::veltradata::isComplexType;
using foundation::veltradata::realTypeOf;

// The numeric types in the table's order, then logical.
#define VELTRA_KIND(KIND, T, NAME) ArrayType::KIND,
const ArrayType kTypeKinds[kTypeCount] = {VELTRA_NUMERIC_KINDS(VELTRA_KIND) ArrayType::LOGICAL};
#undef VELTRA_KIND
#define VELTRA_NAME(KIND, T, NAME) NAME,
const char* const kTypeNames[kTypeCount] = {VELTRA_NUMERIC_KINDS(VELTRA_NAME) "logical"};
#undef VELTRA_NAME

namespace {

PyObject* g_types[kTypeCount] = {};
constexpr int kReprLimit = 1000;  // elements; bigger arrays print their size only

std::string fullName(int index) { return std::string("veltra.") + kTypeNames[index]; }

// ---- Layout helpers ----

void setOwnerLayout(Body& b) {
    b.shape = b.array.getDimensions();
    b.strides.assign(b.shape.size(), 0);
    // Unsigned: an empty array may have dimensions whose product does not fit (its strides are never used).
    std::uint64_t s = 1;
    for (std::size_t k = 0; k < b.shape.size(); ++k) {
        b.strides[k] = static_cast<std::int64_t>(s);
        s *= b.shape[k];
    }
    b.offset = 0;
}

// Strides and offsets multiply in 64-bit modular arithmetic: exact for an array with elements (every offset
// lies within it), and for an empty one, whose other dimensions may multiply past 64 bits, never used.
std::int64_t wrappingProduct(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

std::uint64_t countOf(const std::vector<std::uint64_t>& shape) {
    std::uint64_t n = 1;
    for (std::uint64_t d : shape) n *= d;
    return n;
}

bool isColumnMajor(const Body& b) {
    std::uint64_t s = 1;
    for (std::size_t k = 0; k < b.shape.size(); ++k) {
        if (b.shape[k] != 1 && b.strides[k] != static_cast<std::int64_t>(s)) return false;
        s *= b.shape[k];
    }
    return true;
}

bool isRowMajor(const Body& b) {
    std::uint64_t s = 1;
    for (std::size_t k = b.shape.size(); k-- > 0;) {
        if (b.shape[k] != 1 && b.strides[k] != static_cast<std::int64_t>(s)) return false;
        s *= b.shape[k];
    }
    return true;
}

std::vector<std::int64_t> byteStrides(const Body& b, std::size_t itemsize) {
    std::vector<std::int64_t> out(b.strides.size());
    for (std::size_t k = 0; k < out.size(); ++k) out[k] = wrappingProduct(b.strides[k], static_cast<std::int64_t>(itemsize));
    return out;
}

std::vector<std::int64_t> signedShape(const std::vector<std::uint64_t>& shape) {
    return std::vector<std::int64_t>(shape.begin(), shape.end());
}

PyObject* allocObject(int index) {
    auto* type = reinterpret_cast<PyTypeObject*>(g_types[index]);
    Ref object = check(PyType_GenericAlloc(type, 0));
    auto* o = reinterpret_cast<ArrayObject*>(object.get());
    o->weakrefs = nullptr;
    o->body = new Body();
    return object.release();
}

// A view of `owner` with the given layout (a strong reference to the owner is kept).
PyObject* newView(PyObject* owner, std::vector<std::uint64_t> shape, std::vector<std::int64_t> strides,
                  std::uint64_t offset) {
    PyObject* o = allocObject(typeIndexOf(Py_TYPE(owner)));
    Body& b = bodyOf(o);
    b.shape = std::move(shape);
    b.strides = std::move(strides);
    b.offset = countOf(b.shape) == 0 ? 0 : offset;
    b.owner = Py_NewRef(owner);
    return o;
}

// ---- Reading elements ----

PyObject* listOf(const std::uint8_t* p, const Body& b, std::size_t dim, ArrayType kind, std::size_t itemsize) {
    const Py_ssize_t n = static_cast<Py_ssize_t>(b.shape[dim]);
    Ref list = check(PyList_New(n));
    const std::int64_t step = wrappingProduct(b.strides[dim], static_cast<std::int64_t>(itemsize));
    if (Py_EnterRecursiveCall(" while converting an array to a list")) throw PyErrorSet{};
    struct Leave {
        ~Leave() { Py_LeaveRecursiveCall(); }
    } leave;
    for (Py_ssize_t i = 0; i < n; ++i, p += step) {
        PyObject* item = dim + 1 == b.shape.size() ? scalarToPython(p, kind) : listOf(p, b, dim + 1, kind, itemsize);
        if (!item) throw PyErrorSet{};
        PyList_SetItem(list.get(), i, item);  // steals
    }
    return list.release();
}

PyObject* toList(PyObject* self) {
    const Body& b = bodyOf(self);
    const ArrayType kind = kindOf(self);
    return listOf(readAddress(self), b, 0, kind, elementSize(kind));
}

// ---- Indexing ----

struct Region {
    std::vector<std::uint64_t> shape;
    std::vector<std::int64_t> strides;
    std::uint64_t offset = 0;
};

std::int64_t readIndex(PyObject* key) {
    Ref i = check(PyNumber_Index(key));
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(i.get(), &overflow);
    if (overflow) return overflow > 0 ? INT64_MAX : INT64_MIN;
    if (v == -1 && PyErr_Occurred()) throw PyErrorSet{};
    return v;
}

// Applies the index entry for dimension `dim` of the indexed object, which is axis `axis` of `r` (an integer
// removes the axis, a slice narrows it).
void applyKey(Region& r, std::size_t& axis, std::size_t dim, std::size_t ndim, PyObject* key) {
    if (dim >= ndim) {
        raise(PyExc_IndexError, "too many indices: the array has " + std::to_string(ndim) +
                                    (ndim == 1 ? " dimension" : " dimensions"));
    }
    if (r.shape[axis] > static_cast<std::uint64_t>(PY_SSIZE_T_MAX))
        raise(PyExc_IndexError, "dimension " + std::to_string(dim) + " is too large to index");
    const std::int64_t len = static_cast<std::int64_t>(r.shape[axis]);
    if (PySlice_Check(key)) {
        Py_ssize_t start, stop, step;
        if (PySlice_Unpack(key, &start, &stop, &step) < 0) throw PyErrorSet{};
        const Py_ssize_t n = PySlice_AdjustIndices(static_cast<Py_ssize_t>(len), &start, &stop, step);
        if (n > 0) r.offset += static_cast<std::uint64_t>(wrappingProduct(start, r.strides[axis]));
        r.shape[axis] = static_cast<std::uint64_t>(n);
        r.strides[axis] = wrappingProduct(r.strides[axis], step);
        ++axis;
        return;
    }
    if (!PyIndex_Check(key)) {
        raise(PyExc_TypeError, "array indices must be integers or slices, not " + typeName(key));
    }
    std::int64_t i = readIndex(key);
    const std::int64_t given = i;
    if (i < 0) i += len;
    if (i < 0 || i >= len) {
        raise(PyExc_IndexError, "index " + std::to_string(given) + " is out of range for dimension " +
                                    std::to_string(dim) + " of size " + std::to_string(len));
    }
    r.offset += static_cast<std::uint64_t>(wrappingProduct(i, r.strides[axis]));
    r.shape.erase(r.shape.begin() + static_cast<std::ptrdiff_t>(axis));
    r.strides.erase(r.strides.begin() + static_cast<std::ptrdiff_t>(axis));
}

Region regionOf(PyObject* self, PyObject* key) {
    const Body& b = bodyOf(self);
    Region r{b.shape, b.strides, b.offset};
    const std::size_t ndim = b.shape.size();
    std::size_t axis = 0;
    if (PyTuple_Check(key)) {
        const Py_ssize_t n = PyTuple_Size(key);
        for (Py_ssize_t k = 0; k < n; ++k)
            applyKey(r, axis, static_cast<std::size_t>(k), ndim, PyTuple_GetItem(key, k));
    } else {
        applyKey(r, axis, 0, ndim, key);
    }
    return r;
}

PyObject* subscript(PyObject* self, PyObject* key) {
    Region r = regionOf(self, key);
    PyObject* owner = reinterpret_cast<PyObject*>(ownerOf(self));
    if (r.shape.empty()) {
        const ArrayType kind = kindOf(self);
        const std::uint8_t* base = readAddress(owner);
        return scalarToPython(base + r.offset * elementSize(kind), kind);
    }
    return newView(owner, std::move(r.shape), std::move(r.strides), r.offset);
}

void assign(PyObject* self, PyObject* key, PyObject* value) {
    if (!value) raise(PyExc_TypeError, "cannot delete elements of a " + fullName(typeIndexOf(Py_TYPE(self))));
    Region r = regionOf(self, key);
    const ArrayType kind = kindOf(self);
    bool single = false;
    // Built before any address is taken: building may run Python code, and taking the write address may
    // detach shared storage.
    Array v = assignmentValue(kind, value, r.shape, single);
    const std::size_t es = elementSize(kind);
    if (countOf(r.shape) == 0) return;
    PyObject* owner = reinterpret_cast<PyObject*>(ownerOf(self));
    std::uint8_t* base = writeAddress(owner) + r.offset * es;
    const std::vector<std::int64_t> ext = signedShape(r.shape);
    const int nd = static_cast<int>(ext.size());
    std::vector<std::int64_t> dst(r.strides.size()), src(r.strides.size(), 0);
    for (std::size_t k = 0; k < dst.size(); ++k) dst[k] = wrappingProduct(r.strides[k], static_cast<std::int64_t>(es));
    if (!single) columnMajorStrides(ext.data(), nd, es, src.data());
    const std::uint8_t* from = v.impl().get<foundation::veltradata::detail::AlignedBuffer>().data();
    if (nd == 0) {
        std::memcpy(base, from, es);
        return;
    }
    stridedCopy(base, dst.data(), from, src.data(), ext.data(), nd, es, es, false);
}

// ---- Equality ----

struct Wide {
    long double re, im;
};

template <typename T>
Wide widen(const std::uint8_t* p) {
    if constexpr (std::is_same_v<T, bool>) {
        return {*p != 0 ? 1.0L : 0.0L, 0.0L};
    } else {
        T v;
        std::memcpy(&v, p, sizeof(T));
        if constexpr (foundation::veltradata::detail::IsComplex<T>::value) {
            return {static_cast<long double>(v.real()), static_cast<long double>(v.imag())};
        } else {
            return {static_cast<long double>(v), 0.0L};
        }
    }
}

bool sameValue(long double a, long double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

bool arraysEqual(PyObject* a, PyObject* b) {
    const Body& x = bodyOf(a);
    const Body& y = bodyOf(b);
    if (x.shape != y.shape) return false;
    Array u = arrayOf(a);
    Array v = arrayOf(b);
    if (u.getImpl() == v.getImpl()) return true;
    const ArrayType tu = u.getType(), tv = v.getType();
    const std::uint8_t* pu = u.impl().get<foundation::veltradata::detail::AlignedBuffer>().data();
    const std::uint8_t* pv = v.impl().get<foundation::veltradata::detail::AlignedBuffer>().data();
    const std::uint64_t n = u.getNumberOfElements();
    if (tu == tv && !isComplexType(tu) && realTypeOf(tu) != ArrayType::DOUBLE && tu != ArrayType::SINGLE)
        return n == 0 || std::memcmp(pu, pv, static_cast<std::size_t>(n) * elementSize(tu)) == 0;
    const std::size_t su = elementSize(tu), sv = elementSize(tv);
    return foundation::veltradata::detail::visitRawType(tu, [&](auto s) {
        return foundation::veltradata::detail::visitRawType(tv, [&](auto t) {
            for (std::uint64_t i = 0; i < n; ++i) {
                Wide p = widen<decltype(s)>(pu + i * su);
                Wide q = widen<decltype(t)>(pv + i * sv);
                if (!sameValue(p.re, q.re) || !sameValue(p.im, q.im)) return false;
            }
            return true;
        });
    });
}

// ---- Slots ----

int typeIndexOrRaise(PyObject* self) {
    const int i = typeIndexOf(Py_TYPE(self));
    if (i < 0) raise(PyExc_TypeError, "not a typed array");
    return i;
}

PyObject* tpNew(PyTypeObject* cls, PyObject* args, PyObject* kwds) {
    const int index = typeIndexOf(cls);
    if (index < 0) raise(PyExc_TypeError, "cannot create instances of this type");
    static const char* kwlist[] = {"initializer", "size", "is_complex", nullptr};
    PyObject *init = Py_None, *size = Py_None, *complexArg = Py_False;
    const std::string format = "|OOO:" + std::string(kTypeNames[index]);
    if (!PyArg_ParseTupleAndKeywords(args, kwds, format.c_str(), const_cast<char**>(kwlist), &init, &size,
                                     &complexArg))
        return nullptr;
    const int isComplex = PyObject_IsTrue(complexArg);
    if (isComplex < 0) return nullptr;
    Array a = buildArray(index, init, size == Py_None ? nullptr : size, isComplex != 0);
    return newOwner(index, std::move(a));
}

void tpDealloc(PyObject* self) {
    auto* o = reinterpret_cast<ArrayObject*>(self);
    if (o->weakrefs) PyObject_ClearWeakRefs(self);
    if (Body* b = o->body) {
        o->body = nullptr;
        PyObject* owner = b->owner;
        delete b;
        Py_XDECREF(owner);
    }
    PyTypeObject* type = Py_TYPE(self);
    auto freeFn = reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free));
    freeFn(self);
    Py_DECREF(type);
}

PyObject* tpRepr(PyObject* self) {
    const int index = typeIndexOrRaise(self);
    const Body& b = bodyOf(self);
    const bool complex = isComplexType(kindOf(self));
    const std::uint64_t n = countOf(b.shape);
    std::string out;
    if (n > kReprLimit) {
        out = "<" + fullName(index) + " of size " + formatDims(b.shape) + (complex ? ", complex>" : ">");
    } else if (n == 0) {
        out = fullName(index) + "(size=" + formatDims(b.shape) + (complex ? ", is_complex=True)" : ")");
    } else {
        Ref list = Ref::steal(toList(self));
        Ref text = check(PyObject_Repr(list.get()));
        const char* s = PyUnicode_AsUTF8AndSize(text.get(), nullptr);
        if (!s) throw PyErrorSet{};
        out = fullName(index) + "(" + s + (complex ? ", is_complex=True)" : ")");
    }
    return PyUnicode_FromStringAndSize(out.data(), static_cast<Py_ssize_t>(out.size()));
}

PyObject* tpRichCompare(PyObject* self, PyObject* other, int op) {
    if ((op != Py_EQ && op != Py_NE) || !isPackageObject(self) || !isPackageObject(other)) Py_RETURN_NOTIMPLEMENTED;
    const bool eq = arraysEqual(self, other);
    return PyBool_FromLong((op == Py_EQ) == eq);
}

Py_ssize_t mpLength(PyObject* self) {
    const Body& b = bodyOf(self);
    if (b.shape.empty()) return 0;
    if (b.shape[0] > static_cast<std::uint64_t>(PY_SSIZE_T_MAX)) {
        PyErr_SetString(PyExc_OverflowError, "the first dimension is too large for len()");
        return -1;
    }
    return static_cast<Py_ssize_t>(b.shape[0]);
}

PyObject* sqItem(PyObject* self, Py_ssize_t i) {
    Ref key = check(PyLong_FromSsize_t(i));
    return subscript(self, key.get());
}

int mpAssSubscript(PyObject* self, PyObject* key, PyObject* value) {
    assign(self, key, value);
    return 0;
}

int bfGetBuffer(PyObject* self, Py_buffer* view, int flags) {
    view->obj = nullptr;
    ArrayObject* owner = ownerOf(self);
    Body& ob = *owner->body;
    const Body& b = bodyOf(self);
    const ArrayType kind = ob.array.getType();
    const std::size_t es = elementSize(kind);
    for (std::uint64_t d : b.shape)
        if (d > static_cast<std::uint64_t>(PY_SSIZE_T_MAX)) raise(PyExc_BufferError, "the array is too large to export");
    const bool fOrder = isColumnMajor(b), cOrder = isRowMajor(b);
    if ((flags & PyBUF_F_CONTIGUOUS) == PyBUF_F_CONTIGUOUS && !fOrder)
        raise(PyExc_BufferError, "the array is not Fortran-contiguous");
    if ((flags & PyBUF_C_CONTIGUOUS) == PyBUF_C_CONTIGUOUS && !cOrder)
        raise(PyExc_BufferError, "the array is not C-contiguous");
    if ((flags & PyBUF_ANY_CONTIGUOUS) == PyBUF_ANY_CONTIGUOUS && !fOrder && !cOrder)
        raise(PyExc_BufferError, "the array is not contiguous");
    if ((flags & PyBUF_STRIDES) != PyBUF_STRIDES && !cOrder && (flags & PyBUF_ND) == PyBUF_ND)
        raise(PyExc_BufferError, "the array is not C-contiguous; request strides to read it");
    if ((flags & PyBUF_ND) != PyBUF_ND && !fOrder && !cOrder)
        raise(PyExc_BufferError, "the array is not contiguous");

    // Pin the storage: from now on it belongs to this owner alone until the last export ends.
    if (ob.exports == 0 && ob.array.getImpl() && ob.array.getImpl()->shared()) ob.array.mutableImpl();
    const std::uint8_t* base = ob.array.impl().get<foundation::veltradata::detail::AlignedBuffer>().data();

    const int nd = static_cast<int>(b.shape.size());
    Py_ssize_t* dims = nullptr;
    if ((flags & PyBUF_ND) == PyBUF_ND) {
        dims = static_cast<Py_ssize_t*>(PyMem_Malloc(sizeof(Py_ssize_t) * 2 * (nd ? nd : 1)));
        if (!dims) throw std::bad_alloc();
        for (int k = 0; k < nd; ++k) {
            dims[k] = static_cast<Py_ssize_t>(b.shape[k]);
            dims[nd + k] = static_cast<Py_ssize_t>(wrappingProduct(b.strides[k], static_cast<std::int64_t>(es)));
        }
    }
    view->buf = const_cast<std::uint8_t*>(base) + b.offset * es;
    view->len = static_cast<Py_ssize_t>(countOf(b.shape) * es);
    // A plain byte request (no shape, no format) sees unsigned bytes.
    view->itemsize = dims || (flags & PyBUF_FORMAT) == PyBUF_FORMAT ? static_cast<Py_ssize_t>(es) : 1;
    view->readonly = 0;
    view->ndim = dims ? nd : 1;
    view->format = (flags & PyBUF_FORMAT) == PyBUF_FORMAT ? const_cast<char*>(exportFormat(kind)) : nullptr;
    view->shape = dims;
    view->strides = dims && (flags & PyBUF_STRIDES) == PyBUF_STRIDES ? dims + nd : nullptr;
    view->suboffsets = nullptr;
    view->internal = dims;
    ++ob.exports;
    Py_INCREF(self);
    view->obj = self;
    return 0;
}

void bfReleaseBuffer(PyObject* self, Py_buffer* view) {
    PyMem_Free(view->internal);
    view->internal = nullptr;
    --ownerOf(self)->body->exports;
}

// ---- Attributes and methods ----

PyObject* getSize(PyObject* self, void*) {
    const Body& b = bodyOf(self);
    Ref t = check(PyTuple_New(static_cast<Py_ssize_t>(b.shape.size())));
    for (std::size_t k = 0; k < b.shape.size(); ++k) {
        PyObject* d = PyLong_FromUnsignedLongLong(b.shape[k]);
        if (!d) return nullptr;
        PyTuple_SetItem(t.get(), static_cast<Py_ssize_t>(k), d);
    }
    return t.release();
}

PyObject* getIsComplex(PyObject* self, void*) { return PyBool_FromLong(isComplexType(kindOf(self))); }

PyObject* methToList(PyObject* self, PyObject*) { return toList(self); }

PyObject* methReshape(PyObject* self, PyObject* args) {
    const int index = typeIndexOrRaise(self);
    PyObject* dimsArg = args;
    if (PyTuple_Size(args) == 1 && !PyIndex_Check(PyTuple_GetItem(args, 0))) dimsArg = PyTuple_GetItem(args, 0);
    Dims dims = parseSize(dimsArg, "reshape");
    Body& b = bodyOf(self);
    if (b.owner) {
        raise(PyExc_ValueError, "a sub-array view cannot be reshaped in place; copy it first with " +
                                    fullName(index) + "(view)");
    }
    const std::uint64_t have = b.array.getNumberOfElements();
    const std::uint64_t want = foundation::veltradata::numberOfElements(dims);
    if (have != want) {
        raise(PyExc_ValueError, "cannot reshape an array of " + std::to_string(have) + " elements to size " +
                                    formatDims(dims) + " (" + std::to_string(want) + " elements)");
    }
    // The elements stay where they are (pinned storage is never detached, and detaching shared storage
    // copies it in the same order), so views and exported buffers, which carry their own shape and
    // strides over that storage, keep showing the same elements.
    b.array.mutableImpl().dims = std::move(dims);
    setOwnerLayout(b);
    Py_RETURN_NONE;
}

// copy.copy and copy.deepcopy: a new owner sharing the elements until either side writes.
PyObject* methCopy(PyObject* self, PyObject*) {
    return newOwner(typeIndexOrRaise(self), arrayOf(self));
}

// Pickling: (type, (elements in column-major order, size, is_complex)).
PyObject* methReduce(PyObject* self, PyObject*) {
    const int index = typeIndexOrRaise(self);
    Array a = arrayOf(self);
    const ArrayType kind = a.getType();
    const std::size_t es = elementSize(kind);
    const std::uint64_t n = a.getNumberOfElements();
    Ref flat = check(PyList_New(static_cast<Py_ssize_t>(n)));
    const std::uint8_t* p = a.impl().get<foundation::veltradata::detail::AlignedBuffer>().data();
    for (std::uint64_t i = 0; i < n; ++i) {
        PyObject* v = scalarToPython(p + i * es, kind);
        if (!v) return nullptr;
        PyList_SetItem(flat.get(), static_cast<Py_ssize_t>(i), v);
    }
    Ref size = check(getSize(self, nullptr));
    return Py_BuildValue("O(OOO)", typeObject(index), flat.get(), size.get(),
                         isComplexType(kind) ? Py_True : Py_False);
}

PyGetSetDef kGetSet[] = {
    {"size", guarded<getSize>, nullptr, const_cast<char*>("The dimensions, as a tuple."), nullptr},
    {"_is_complex", getIsComplex, nullptr, const_cast<char*>("True when the elements are complex."), nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef kMethods[] = {
    {"tolist", guarded<methToList>, METH_NOARGS, "The elements as nested lists, one level per dimension."},
    {"reshape", guarded<methReshape>, METH_VARARGS,
     "reshape(*dims) or reshape(dims): change the dimensions in place, keeping the column-major element order."},
    {"__copy__", guarded<methCopy>, METH_NOARGS, "A copy (the elements are shared until either side writes)."},
    {"__deepcopy__", guarded<methCopy>, METH_O, "A copy (the elements are shared until either side writes)."},
    {"__reduce__", guarded<methReduce>, METH_NOARGS, "Pickling support."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef kMembers[] = {
    {"__weaklistoffset__", T_PYSSIZET, static_cast<Py_ssize_t>(offsetof(ArrayObject, weakrefs)), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

const char kDocBody[] =
    "An N-dimensional array of the engine, column-major, with at least two dimensions.\n\n"
    "initializer: a number; a rectangular nested sequence (a flat sequence gives a 1-by-N row, a sequence of\n"
    "rows gives rows-by-columns, deeper nesting adds dimensions); any buffer-protocol object or numpy array\n"
    "(its shape is kept, 0-d becomes 1-by-1 and 1-d of n becomes 1-by-n); or another typed array.\n"
    "size: the dimensions of an all-zero array, or the dimensions to give the initializer's elements, taken\n"
    "in column-major order.\n"
    "is_complex: store complex elements (complex initializer elements imply it).\n\n"
    "Indexing runs along the first dimension: x[i] is a sub-array view (or an element, at the last level),\n"
    "x[i, j] indexes several dimensions at once, and slices and negative indices work as for lists. Views\n"
    "share the elements: x[0][1] = 5 changes x. numpy.asarray(x) is a view of the elements, shape == x.size.";

PyType_Slot kSlots[] = {
    {Py_tp_new, reinterpret_cast<void*>(guarded<tpNew>)},
    {Py_tp_dealloc, reinterpret_cast<void*>(tpDealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(guarded<tpRepr>)},
    {Py_tp_richcompare, reinterpret_cast<void*>(guarded<tpRichCompare>)},
    {Py_tp_hash, reinterpret_cast<void*>(PyObject_HashNotImplemented)},
    {Py_tp_getset, kGetSet},
    {Py_tp_methods, kMethods},
    {Py_tp_members, kMembers},
    {Py_tp_doc, nullptr},  // per type, see createTypes
    {Py_mp_length, reinterpret_cast<void*>(mpLength)},
    {Py_mp_subscript, reinterpret_cast<void*>(guarded<subscript>)},
    {Py_mp_ass_subscript, reinterpret_cast<void*>(guarded<mpAssSubscript>)},
    {Py_sq_length, reinterpret_cast<void*>(mpLength)},
    {Py_sq_item, reinterpret_cast<void*>(guarded<sqItem>)},
    {Py_bf_getbuffer, reinterpret_cast<void*>(guarded<bfGetBuffer>)},
    {Py_bf_releasebuffer, reinterpret_cast<void*>(bfReleaseBuffer)},
    {0, nullptr},
};

}  // namespace

bool createTypes() {
    static std::string names[kTypeCount], docs[kTypeCount];
    constexpr std::size_t kSlotCount = sizeof(kSlots) / sizeof(kSlots[0]);
    static PyType_Slot slots[kTypeCount][kSlotCount];
    for (int i = 0; i < kTypeCount; ++i) {
        if (g_types[i]) continue;
        names[i] = fullName(i);
        // "double(initializer=None, ...)\n--\n\n" becomes the type's __text_signature__.
        docs[i] = std::string(kTypeNames[i]) + "(initializer=None, size=None, is_complex=False)\n--\n\n" + kDocBody;
        for (std::size_t k = 0; k < kSlotCount; ++k) {
            slots[i][k] = kSlots[k];
            if (kSlots[k].slot == Py_tp_doc) slots[i][k].pfunc = const_cast<char*>(docs[i].c_str());
        }
        PyType_Spec spec = {names[i].c_str(), static_cast<int>(sizeof(ArrayObject)), 0,
                            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE, slots[i]};
        g_types[i] = PyType_FromSpec(&spec);
        if (!g_types[i]) return false;
    }
    return true;
}

PyObject* typeObject(int index) { return g_types[index]; }

int typeIndexOf(PyTypeObject* type) {
    for (int i = 0; i < kTypeCount; ++i)
        if (reinterpret_cast<PyObject*>(type) == g_types[i]) return i;
    return -1;
}

int typeIndexForKind(ArrayType kind) {
    const ArrayType real = realTypeOf(kind);
    if (real == ArrayType::LOGICAL && isComplexType(kind)) return -1;
    for (int i = 0; i < kTypeCount; ++i)
        if (kTypeKinds[i] == real) return i;
    return -1;
}

PyObject* newOwner(int index, Array a) {
    PyObject* o = allocObject(index);
    Body& b = bodyOf(o);
    b.array = std::move(a);
    setOwnerLayout(b);
    return o;
}

PyObject* wrapArray(Array a) {
    const int index = typeIndexForKind(a.getType());
    if (index < 0) {
        raise(PyExc_TypeError, "an array of type " + kindName(a.getType()) + " (" +
                                   std::to_string(static_cast<int>(a.getType())) +
                                   ") cannot be held by a typed array");
    }
    return newOwner(index, std::move(a));
}

Array arrayOf(PyObject* o) {
    Body& b = bodyOf(o);
    if (!b.owner && b.exports == 0) return b.array;  // shared; copy-on-write keeps both values apart
    const ArrayType kind = kindOf(o);
    const std::size_t es = elementSize(kind);
    Dims dims = b.shape.size() == 1 ? Dims{1, b.shape[0]} : b.shape;
    const std::uint64_t n = countOf(b.shape);
    foundation::veltradata::detail::AlignedBuffer out(static_cast<std::size_t>(n) * es, false);
    if (n) {
        const std::vector<std::int64_t> ext = signedShape(b.shape);
        std::vector<std::int64_t> dst(ext.size());
        columnMajorStrides(ext.data(), static_cast<int>(ext.size()), es, dst.data());
        const std::vector<std::int64_t> src = byteStrides(b, es);
        stridedCopy(out.data(), dst.data(), readAddress(o), src.data(), ext.data(), static_cast<int>(ext.size()), es,
                    es, false);
    }
    foundation::veltradata::ClientArrayFactory f;
    return f.adoptBuffer(kind, std::move(dims), std::move(out));
}

const std::uint8_t* readAddress(PyObject* o) {
    ArrayObject* owner = ownerOf(o);
    const Array& a = owner->body->array;
    return a.impl().get<foundation::veltradata::detail::AlignedBuffer>().data() + bodyOf(o).offset * elementSize(a.getType());
}

std::uint8_t* writeAddress(PyObject* o) {
    ArrayObject* owner = ownerOf(o);
    Array& a = owner->body->array;
    return a.mutableImpl().get<foundation::veltradata::detail::AlignedBuffer>().data() + bodyOf(o).offset * elementSize(a.getType());
}

PyObject* scalarToPython(const std::uint8_t* p, ArrayType kind) {
    switch (kind) {
        case ArrayType::LOGICAL: return PyBool_FromLong(*p != 0);
        case ArrayType::DOUBLE: {
            double v;
            std::memcpy(&v, p, sizeof v);
            return PyFloat_FromDouble(v);
        }
        case ArrayType::SINGLE: {
            float v;
            std::memcpy(&v, p, sizeof v);
            return PyFloat_FromDouble(v);
        }
        default: break;
    }
    return foundation::veltradata::detail::visitRawType(kind, [&](auto tag) -> PyObject* {
        using T = decltype(tag);
        T v;
        std::memcpy(&v, p, sizeof(T));
        if constexpr (foundation::veltradata::detail::IsComplex<T>::value) {
            return PyComplex_FromDoubles(static_cast<double>(v.real()), static_cast<double>(v.imag()));
        } else if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, char16_t>) {
            return PyLong_FromLong(static_cast<long>(v));
        } else {
            return pyutil::numberToPython(v);
        }
    });
}

}  // namespace PythonVeltraDataArray::arraypkg
