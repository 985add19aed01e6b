// Building arrays from Python initializers: numbers, nested sequences, buffers and other typed arrays.
#include <complex>
#include <cstring>
#include <string>
#include <vector>

#include "arraypkg/buffer_source.h"
#include "arraypkg/typed_array.h"
#include "pyutil/buffer.h"
#include "veltradata/array_factory.h"
#include "veltradata/impl.h"

namespace PythonVeltraDataArray::arraypkg {

using foundation::veltradata::complexTypeOf;
using foundation::veltradata::elementSize;
using foundation::veltradata::isComplexType;
using foundation::veltradata::realTypeOf;

namespace {

constexpr std::size_t kMaxDepth = 64;

// An initializer's elements with the shape it has as Python sees it (a flat list of n is (n,), a 0-d
// buffer or a number is ()); the array's own dimensions are at least two.
struct Built {
    Array array;
    std::vector<std::uint64_t> shape;
};

enum class Leaf { NotNumber, Bool, Int, Float, Complex };

bool isText(PyObject* o) { return PyUnicode_Check(o) || PyBytes_Check(o) || PyByteArray_Check(o); }

// A sequence that nests (is walked element by element); its length, or -1.
Py_ssize_t nestedLength(PyObject* o) {
    if (PyList_Check(o)) return PyList_Size(o);
    if (PyTuple_Check(o)) return PyTuple_Size(o);
    if (isText(o) || !PySequence_Check(o)) return -1;
    const Py_ssize_t n = PySequence_Size(o);
    if (n < 0) clearProbe();  // a 0-d numpy array claims to be a sequence but has no length
    return n;
}

bool hasSlot(PyObject* o, int slot) { return PyType_GetSlot(Py_TYPE(o), slot) != nullptr; }

// Tries a conversion; a TypeError means "not this kind of number" and is cleared, other errors propagate.
Ref attempt(PyObject* result) {
    if (!result) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw PyErrorSet{};
        clearProbe();
    }
    return Ref::steal(result);
}

// The number a leaf holds as a bool, int, float or complex object (a new reference in `out`).
Leaf classify(PyObject* o, Ref& out) {
    if (PyBool_Check(o)) return out = Ref::borrow(o), Leaf::Bool;
    if (PyLong_Check(o)) return out = Ref::borrow(o), Leaf::Int;
    if (PyFloat_Check(o)) return out = Ref::borrow(o), Leaf::Float;
    if (PyComplex_Check(o)) return out = Ref::borrow(o), Leaf::Complex;
    if (isText(o)) return Leaf::NotNumber;
    if (PyObject_CheckBuffer(o)) {
        // numpy scalars and 0-d arrays: read the one element exactly, in its own kind.
        pyutil::BufferView view;
        BufferFormat format;
        if (acquireBuffer(o, view, format)) {
            // One element: every dimension 1 (a product of the exporter's numbers could wrap to 1).
            bool one = true;
            for (int k = 0; k < view->ndim; ++k) one = one && view->shape[k] == 1;
            Array a;
            if (one) a = copyBuffer(*view, format);
            view.release();
            if (one) {
                out = check(scalarToPython(a.impl().get<foundation::veltradata::detail::AlignedBuffer>().data(), a.getType()));
                return classify(out.get(), out);
            }
        } else {
            clearProbe();
        }
    }
    if (hasSlot(o, Py_nb_index)) {
        if ((out = attempt(PyNumber_Index(o)))) return Leaf::Int;
    }
    if (hasSlot(o, Py_nb_float)) {
        if ((out = attempt(PyNumber_Float(o)))) return Leaf::Float;
    }
    Ref complexMethod = Ref::steal(PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(o)), "__complex__"));
    if (!complexMethod) {
        clearProbe();
    } else if ((out = attempt(PyObject_CallFunctionObjArgs(reinterpret_cast<PyObject*>(&PyComplex_Type), o, nullptr)))) {
        return Leaf::Complex;
    }
    return Leaf::NotNumber;
}

[[noreturn]] void notANumber(PyObject* o, const std::vector<std::uint64_t>& path) {
    raise(PyExc_TypeError, "initializer element at index " + formatIndex(path) + " is not a number: " +
                               (path.empty() ? typeName(o) : shortRepr(o) + " of type " + typeName(o)));
}

class Walker {
public:
    std::vector<std::uint64_t> shape;
    std::vector<Ref> leaves;  // in nesting (row-major) order
    std::vector<Leaf> kinds;
    bool anyComplex = false;

    void walk(PyObject* o, std::size_t depth) {
        const Py_ssize_t len = nestedLength(o);
        if (!leafDepthKnown_ && depth == shape.size()) {
            if (len >= 0) {
                if (shape.size() == kMaxDepth)
                    raise(PyExc_ValueError, "initializer is nested more than " + std::to_string(kMaxDepth) + " levels deep");
                shape.push_back(static_cast<std::uint64_t>(len));
            } else {
                leafDepthKnown_ = true;
            }
        }
        if (depth < shape.size()) {
            if (len < 0) {
                raise(PyExc_ValueError, "initializer is not rectangular: expected a sequence of length " +
                                            std::to_string(shape[depth]) + " at index " + formatIndex(path_) +
                                            ", found " + typeName(o));
            }
            if (static_cast<std::uint64_t>(len) != shape[depth]) {
                raise(PyExc_ValueError, "initializer is not rectangular: the sequence at index " + formatIndex(path_) +
                                            " has length " + std::to_string(len) + ", expected " +
                                            std::to_string(shape[depth]));
            }
            if (Py_EnterRecursiveCall(" while reading a nested initializer")) throw PyErrorSet{};
            struct Leave {
                ~Leave() { Py_LeaveRecursiveCall(); }
            } leave;
            path_.push_back(0);
            for (Py_ssize_t i = 0; i < len; ++i) {
                path_.back() = static_cast<std::uint64_t>(i);
                // A strong reference: converting later elements may run code that changes this sequence.
                Ref item = PyList_Check(o)    ? Ref::borrow(PyList_GetItem(o, i))
                           : PyTuple_Check(o) ? Ref::borrow(PyTuple_GetItem(o, i))
                                              : Ref::steal(PySequence_GetItem(o, i));
                if (!item) throw PyErrorSet{};
                walk(item.get(), depth + 1);
            }
            path_.pop_back();
            return;
        }
        if (len >= 0) {
            raise(PyExc_ValueError, "initializer is not rectangular: expected a number at index " + formatIndex(path_) +
                                        ", found a sequence (" + typeName(o) + ")");
        }
        Ref value;
        const Leaf kind = classify(o, value);
        if (kind == Leaf::NotNumber) notANumber(o, path_);
        anyComplex = anyComplex || kind == Leaf::Complex;
        leaves.push_back(std::move(value));
        kinds.push_back(kind);
    }

private:
    bool leafDepthKnown_ = false;
    std::vector<std::uint64_t> path_;
};

// Stores one number at `dst` as kind `to`; throws ElementError (index 0) or PyErrorSet.
void storeLeaf(PyObject* v, Leaf kind, ArrayType to, std::uint8_t* dst) {
    switch (kind) {
        case Leaf::Bool: {
            const bool b = v == Py_True;
            convertElements(&b, ArrayType::LOGICAL, dst, to, 1);
            return;
        }
        case Leaf::Int: {
            int overflow = 0;
            const long long x = PyLong_AsLongLongAndOverflow(v, &overflow);
            if (!overflow) {
                if (x == -1 && PyErr_Occurred()) throw PyErrorSet{};
                convertElements(&x, ArrayType::INT64, dst, to, 1);
                return;
            }
            const ArrayType real = realTypeOf(to);
            if (real == ArrayType::DOUBLE || real == ArrayType::SINGLE || real == ArrayType::LOGICAL) {
                const double d = PyLong_AsDouble(v);
                if (d == -1.0 && PyErr_Occurred()) {
                    clearProbe();
                } else {
                    convertElements(&d, ArrayType::DOUBLE, dst, to, 1);
                    return;
                }
            } else if (overflow > 0) {
                const unsigned long long u = PyLong_AsUnsignedLongLong(v);
                if (!PyErr_Occurred()) {
                    convertElements(&u, ArrayType::UINT64, dst, to, 1);
                    return;
                }
                clearProbe();
            }
            ElementError e;
            e.value = shortRepr(v);
            e.reason = "is out of range for " + kindName(real);
            throw e;
        }
        case Leaf::Float: {
            const double d = PyFloat_AsDouble(v);
            if (d == -1.0 && PyErr_Occurred()) throw PyErrorSet{};
            convertElements(&d, ArrayType::DOUBLE, dst, to, 1);
            return;
        }
        case Leaf::Complex: {
            const std::complex<double> c(PyComplex_RealAsDouble(v), PyComplex_ImagAsDouble(v));
            if (PyErr_Occurred()) throw PyErrorSet{};
            convertElements(&c, ArrayType::COMPLEX_DOUBLE, dst, to, 1);
            return;
        }
        default: throw std::logic_error("not a number");
    }
}

ArrayType targetKind(ArrayType real, bool complex) { return complex ? complexTypeOf(real) : real; }

Dims dimsOfShape(const std::vector<std::uint64_t>& shape) {
    if (shape.empty()) return {1, 1};
    if (shape.size() == 1) return {1, shape[0]};
    return shape;
}

Built fromSequence(PyObject* init, ArrayType real, bool wantComplex, bool upgrade) {
    Walker w;
    w.walk(init, 0);
    const bool complex = wantComplex || (upgrade && w.anyComplex && real != ArrayType::LOGICAL);
    const ArrayType to = targetKind(real, complex);
    foundation::veltradata::ClientArrayFactory f;
    Dims dims = dimsOfShape(w.shape);
    Array a = f.createArray(to, dims);
    const std::size_t es = elementSize(to);
    std::uint8_t* base = a.mutableImpl().get<foundation::veltradata::detail::AlignedBuffer>().data();
    // Leaves come in row-major order; the array is column-major.
    const std::size_t nd = w.shape.size();
    std::vector<std::uint64_t> stride(nd), idx(nd, 0);
    std::uint64_t s = 1;
    for (std::size_t k = 0; k < nd; ++k) {
        stride[k] = s;
        s *= w.shape[k];
    }
    std::uint64_t pos = 0;
    for (std::size_t i = 0; i < w.leaves.size(); ++i) {
        try {
            storeLeaf(w.leaves[i].get(), w.kinds[i], to, base + pos * es);
        } catch (const ElementError& e) {
            const std::string msg = "value " + e.value + " at index " + formatIndex(idx) + " " + e.reason;
            raise(e.typeError ? PyExc_TypeError : PyExc_ValueError, msg);
        }
        for (std::size_t k = nd; k-- > 0;) {
            pos += stride[k];
            if (++idx[k] < w.shape[k]) break;
            pos -= stride[k] * w.shape[k];
            idx[k] = 0;
        }
    }
    return {std::move(a), std::move(w.shape)};
}

Built fromNumber(PyObject* init, ArrayType real, bool wantComplex, bool upgrade) {
    Ref value;
    const Leaf kind = classify(init, value);
    if (kind == Leaf::NotNumber) return {Array(), {}};
    const bool complex = wantComplex || (upgrade && kind == Leaf::Complex && real != ArrayType::LOGICAL);
    const ArrayType to = targetKind(real, complex);
    foundation::veltradata::ClientArrayFactory f;
    Array a = f.createArray(to, {1, 1});
    try {
        storeLeaf(value.get(), kind, to, a.mutableImpl().get<foundation::veltradata::detail::AlignedBuffer>().data());
    } catch (const ElementError& e) {
        raise(e.typeError ? PyExc_TypeError : PyExc_ValueError, "value " + e.value + " " + e.reason);
    }
    return {std::move(a), {}};
}

// Converts `a` to the target kind; complex sources make the target complex when `upgrade` is set.
Array toKind(Array a, ArrayType real, bool wantComplex, bool upgrade, const std::vector<std::uint64_t>& shape) {
    const ArrayType from = a.getType();
    const bool complex = wantComplex || (upgrade && isComplexType(from) && real != ArrayType::LOGICAL);
    const ArrayType to = targetKind(real, complex);
    if (from == to) return a;
    try {
        return convertArray(a, to);
    } catch (const ElementError& e) {
        setElementError(e, shape);
        throw PyErrorSet{};
    }
}

// Returns an empty Built (no array) when `init` is of no kind this understands.
Built build(PyObject* init, ArrayType real, bool wantComplex, bool upgrade) {
    if (isPackageObject(init)) {
        const std::vector<std::uint64_t> shape = bodyOf(init).shape;
        return {toKind(arrayOf(init), real, wantComplex, upgrade, shape), shape};
    }
    if (PyObject_CheckBuffer(init) && !PyUnicode_Check(init)) {
        pyutil::BufferView view;
        BufferFormat format;
        if (acquireBuffer(init, view, format)) {
            std::vector<std::uint64_t> shape = bufferShape(*view);
            Array a = copyBuffer(*view, format);
            view.release();
            return {toKind(std::move(a), real, wantComplex, upgrade, shape), std::move(shape)};
        }
        // Object, float16 or text arrays can still be read element by element when they are sequences;
        // otherwise the buffer's own refusal is the error.
        bool sequence;
        {
            pyutil::ErrorAside aside;
            sequence = nestedLength(init) >= 0;
        }
        if (!sequence) throw PyErrorSet{};
        clearProbe();
    }
    if (nestedLength(init) >= 0) return fromSequence(init, real, wantComplex, upgrade);
    if (PyErr_Occurred()) throw PyErrorSet{};
    return fromNumber(init, real, wantComplex, upgrade);
}

void setDims(Array& a, Dims dims) {
    if (a.getDimensions() != dims) a.mutableImpl().dims = std::move(dims);
}

std::vector<std::uint64_t> squeezed(const std::vector<std::uint64_t>& shape) {
    std::vector<std::uint64_t> out;
    for (std::uint64_t d : shape)
        if (d != 1) out.push_back(d);
    return out;
}

}  // namespace

std::vector<std::uint64_t> parseSize(PyObject* size, const char* what) {
    std::vector<std::uint64_t> dims;
    auto entry = [&](PyObject* item, Py_ssize_t position) {
        if (!PyIndex_Check(item) || PyBool_Check(item)) {
            raise(PyExc_TypeError, std::string(what) + " must be a sequence of non-negative integers; found " +
                                       typeName(item) + " at position " + std::to_string(position));
        }
        Ref i = check(PyNumber_Index(item));
        int overflow = 0;
        const long long v = PyLong_AsLongLongAndOverflow(i.get(), &overflow);
        if (v == -1 && PyErr_Occurred()) throw PyErrorSet{};
        if (overflow > 0) raise(PyExc_ValueError, std::string(what) + " " + shortRepr(size) + " is too large");
        if (overflow < 0 || v < 0) {
            raise(PyExc_ValueError, std::string(what) + " must not contain negative dimensions: " + shortRepr(item) +
                                        " at position " + std::to_string(position));
        }
        dims.push_back(static_cast<std::uint64_t>(v));
    };
    if (PyIndex_Check(size) && !PyBool_Check(size)) {
        entry(size, 0);
    } else if (PyList_Check(size) || PyTuple_Check(size) ||
               (!isText(size) && PySequence_Check(size) && !isPackageObject(size))) {
        const Py_ssize_t n = PySequence_Size(size);
        if (n < 0) throw PyErrorSet{};
        if (n > static_cast<Py_ssize_t>(kMaxDepth))
            raise(PyExc_ValueError, std::string(what) + " has more than " + std::to_string(kMaxDepth) + " dimensions");
        for (Py_ssize_t k = 0; k < n; ++k) {
            Ref item = check(PySequence_GetItem(size, k));
            entry(item.get(), k);
        }
    } else {
        raise(PyExc_TypeError, std::string(what) + " must be a sequence of non-negative integers, not " + typeName(size));
    }
    if (dims.empty()) raise(PyExc_ValueError, std::string(what) + " must have at least one dimension");
    dims = foundation::veltradata::normalizeDims(std::move(dims));
    try {
        foundation::veltradata::numberOfElements(dims);
    } catch (const foundation::veltradata::DimensionsOverflowException&) {
        raise(PyExc_ValueError, std::string(what) + " " + formatDims(dims) + " is too large");
    }
    return dims;
}

Array buildArray(int typeIndex, PyObject* initializer, PyObject* size, bool isComplex) {
    const ArrayType real = kTypeKinds[typeIndex];
    if (isComplex && real == ArrayType::LOGICAL) raise(PyExc_ValueError, "logical arrays cannot be complex");
    std::vector<std::uint64_t> dims;
    if (size) dims = parseSize(size, "size");
    if (initializer == Py_None) {
        foundation::veltradata::ClientArrayFactory f;
        return f.createArray(targetKind(real, isComplex), size ? dims : Dims{0, 0});
    }
    Built b = build(initializer, real, isComplex, true);
    if (!b.array.getImpl()) {
        raise(PyExc_TypeError, "cannot build a veltra." + std::string(kTypeNames[typeIndex]) +
                                   " from an object of type " + typeName(initializer));
    }
    if (size) {
        const std::uint64_t have = b.array.getNumberOfElements();
        const std::uint64_t want = foundation::veltradata::numberOfElements(dims);
        if (have != want) {
            raise(PyExc_ValueError, "size " + formatDims(dims) + " holds " + std::to_string(want) +
                                        " elements but the initializer has " + std::to_string(have));
        }
        setDims(b.array, std::move(dims));
    }
    return std::move(b.array);
}

Array assignmentValue(ArrayType kind, PyObject* value, const std::vector<std::uint64_t>& shape, bool& single) {
    Built b = build(value, realTypeOf(kind), isComplexType(kind), false);
    if (!b.array.getImpl()) raise(PyExc_TypeError, "cannot assign an object of type " + typeName(value) + " to array elements");
    if (b.array.getType() != kind) {
        // A complex value for a real array: the array's kind does not change under assignment.
        try {
            b.array = convertArray(b.array, kind);
        } catch (const ElementError& e) {
            setElementError(e, b.shape);
            throw PyErrorSet{};
        }
    }
    single = b.array.getNumberOfElements() == 1;
    if (!single && squeezed(b.shape) != squeezed(shape)) {
        raise(PyExc_ValueError, "cannot assign a value of shape " + formatDims(b.shape) + " to a region of shape " +
                                    formatDims(shape));
    }
    return std::move(b.array);
}

}  // namespace PythonVeltraDataArray::arraypkg
