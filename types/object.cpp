#include "types/object.h"


#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "pyutil/error.h"
#include "pyutil/exceptions.h"
#include "pyutil/ref.h"
#include "pyutil/type_name.h"
#include "types/compare.h"

namespace PythonVeltraDataArray::types {

namespace {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayType;
using foundation::veltradata::Dims;
using pyutil::fail;
using pyutil::Ref;

constexpr char kTypeName[] = "veltra.object";

struct ObjectState {
    Array array;    // the whole engine array, never changed
    Array element;  // the selected 1x1 element, once every dimension is indexed
    ArrayType type = ArrayType::UNKNOWN;
    foundation::veltradata::ClientArrayFactory factory;
    Dims dims;
    std::vector<std::uint64_t> indices;    // applied so far, first dimension first
    std::vector<std::uint64_t> remaining;  // dimensions not yet indexed; {1, 1} once all are
};

// Made by PyType_GenericAlloc: the state is created and destroyed by hand.
struct VeltraObject {
    PyObject_HEAD
    ObjectState* state;
};

PyObject* g_type = nullptr;

bool isObject(PyObject* obj) { return g_type && PyObject_TypeCheck(obj, reinterpret_cast<PyTypeObject*>(g_type)); }
ObjectState& stateOf(PyObject* obj) { return *reinterpret_cast<VeltraObject*>(obj)->state; }

// A new instance with a fresh state; null with an error set.
PyObject* allocate() {
    Ref self = Ref::steal(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(g_type), 0));
    if (!self) return nullptr;
    auto* o = reinterpret_cast<VeltraObject*>(self.get());
    o->state = new (std::nothrow) ObjectState();
    if (!o->state) return PyErr_NoMemory();
    return self.release();
}

void dealloc(PyObject* self) {
    delete reinterpret_cast<VeltraObject*>(self)->state;
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free))(self);
    Py_DECREF(type);
}

// A slot's body, with any C++ exception it meets turned into the Python error.
template <typename F>
PyObject* guarded(F&& f) {
    try {
        return f();
    } catch (...) {
        return pyutil::failFromCurrentException();
    }
}

Py_ssize_t length(PyObject* self) {
    const ObjectState& s = stateOf(self);
    const std::vector<std::uint64_t>& shown = s.indices.empty() ? s.dims : s.remaining;
    return shown.empty() ? 0 : static_cast<Py_ssize_t>(shown[0]);
}

PyObject* size(PyObject* self, void*) {
    return guarded([&]() -> PyObject* {
        const ObjectState& s = stateOf(self);
        const std::vector<std::uint64_t>& shown = s.indices.empty() ? s.dims : s.remaining;
        Ref tuple = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(shown.size())));
        if (!tuple) return nullptr;
        for (std::size_t k = 0; k < shown.size(); ++k) {
            // Narrowed to a signed 32-bit count, with the overflow a checked numeric cast reports.
            if (shown[k] > static_cast<std::uint64_t>(INT32_MAX))
                return fail(PyExc_OverflowError, "bad numeric conversion: positive overflow");
            PyObject* d = PyLong_FromLong(static_cast<long>(shown[k]));
            if (!d) return nullptr;
            PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(k), d);
        }
        return tuple.release();
    });
}

// The 1x1 array standing for element `position` of the whole array: the same engine handle, or the value
// object with its class.
Array selectElement(ObjectState& s, std::uint64_t position) {
    if (s.type == ArrayType::HANDLE_OBJECT_REF) {
        const Array& whole = s.array;
        const auto handle = whole[position].getValue<foundation::veltradata::HandleObjectRef>();
        return s.factory.createHandleArray({1, 1}, {handle});
    }
    const foundation::veltradata::ValueObject& v = foundation::veltradata::valueObjects(s.array)[position];
    foundation::veltradata::ValueObjectArray one = s.factory.createValueObjectScalar(v.getClassInfo());
    one[0].setElement(v);
    return one;
}

PyObject* item(PyObject* self, Py_ssize_t i) {
    return guarded([&]() -> PyObject* {
        const ObjectState& src = stateOf(self);
        const std::size_t k = src.indices.size();
        if (k == src.dims.size() || i < 0 || static_cast<std::uint64_t>(i) >= src.dims[k])
            return fail(PyExc_IndexError, "index " + std::to_string(i) + " exceeds matrix dimensions");
        Ref out = Ref::steal(allocate());
        if (!out) return nullptr;
        ObjectState& s = stateOf(out.get());
        s.array = src.array;
        s.element = src.element;
        s.type = src.type;
        s.dims = src.dims;
        s.indices = src.indices;
        s.indices.push_back(static_cast<std::uint64_t>(i));
        s.remaining.assign(s.dims.begin() + static_cast<std::ptrdiff_t>(k) + 1, s.dims.end());
        if (s.indices.size() == s.dims.size()) {
            s.remaining.assign({1, 1});
            // Column-major: the first index varies fastest.
            std::uint64_t position = 0, stride = 1;
            for (std::size_t d = 0; d < s.dims.size(); ++d) {
                position += s.indices[d] * stride;
                stride *= s.dims[d];
            }
            s.element = selectElement(s, position);
        }
        return out.release();
    });
}

bool equal(PyObject* a, PyObject* b) {
    if (!isObject(a) || !isObject(b)) return false;  // an impostor that only carries the name
    const ObjectState& x = stateOf(a);
    const ObjectState& y = stateOf(b);
    return x.array == y.array && x.element == y.element && x.dims == y.dims && x.indices == y.indices &&
           x.remaining == y.remaining && x.type == y.type;
}

PyObject* compare(PyObject* self, PyObject* other, int op) {
    return richCompare(self, other, op, kTypeName, equal,
                       [](PyObject* o) { return static_cast<int>(pyutil::typeName(o) == kTypeName); });
}

PyGetSetDef g_getset[] = {
    {"size", size, nullptr, "dimensions of the 'veltra.object' object", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot g_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {Py_tp_doc, const_cast<char*>("VELTRA object")},
    {Py_sq_length, reinterpret_cast<void*>(length)},
    {Py_sq_item, reinterpret_cast<void*>(item)},
    {Py_tp_getset, g_getset},
    {Py_tp_richcompare, reinterpret_cast<void*>(compare)},
    {0, nullptr},
};

PyType_Spec g_spec = {
    kTypeName,
    static_cast<int>(sizeof(VeltraObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    g_slots,
};

}  // namespace

PyObject* objectType() {
    if (!g_type) g_type = PyType_FromSpec(&g_spec);  // kept for the life of the process
    return g_type ? Py_NewRef(g_type) : nullptr;
}

PyObject* wrapObjectArray(const Array& a) {
    if (!g_type) {
        Ref type = Ref::steal(objectType());
        if (!type) return nullptr;
    }
    return guarded([&]() -> PyObject* {
        Ref out = Ref::steal(allocate());
        if (!out) return nullptr;
        ObjectState& s = stateOf(out.get());
        s.array = a;
        s.type = a.getType();
        s.dims = a.getDimensions();
        return out.release();
    });
}

std::optional<Array> objectArray(PyObject* obj) {
    if (!isObject(obj))
        return fail(PyExc_TypeError, "conversion of Python data type '" + pyutil::typeName(obj) + "' to VELTRA not supported");
    const ObjectState& s = stateOf(obj);
    if (s.indices.empty()) return s.array;
    if (s.indices.size() != s.dims.size())
        return fail(PyExc_IndexError, "number of indices (" + std::to_string(s.indices.size()) +
                                          ") not equal to the number of dimensions (" + std::to_string(s.dims.size()) + ")");
    return s.element;
}

}  // namespace PythonVeltraDataArray::types

namespace PythonVeltraDataArray::detail {

std::optional<Array> PyObjectToObject::doConvert(PyObject* obj, const ConversionState&) {
    return types::objectArray(obj);
}

}  // namespace PythonVeltraDataArray::detail
