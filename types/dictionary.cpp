#include "types/dictionary.h"

#include <new>
#include <optional>
#include <string>

#include "pyutil/error.h"
#include "pyutil/ref.h"
#include "pyutil/type_name.h"
#include "types/compare.h"
#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::types {

namespace {

using pyutil::fail;
using pyutil::Ref;

constexpr char kTypeName[] = "veltra.dictionary";
constexpr char kNoContents[] = "field in veltra.dictionary object has not been initialized";

struct DictionaryState {
    foundation::veltradata::ClientArrayFactory factory;
    PyObject* dict = nullptr;                                // the pairs (strong reference)
    std::optional<foundation::veltradata::Array> source;    // the engine dictionary it came as, if any
    unsigned char valuesFixed = 0;  // set for an engine dictionary whose values cannot change in place
    unsigned char unchanged = 0;    // cleared by item assignment and deletion only
};

struct VeltraDictionary {
    PyObject_HEAD
    DictionaryState* state;
};

// The iterator holds the dictionary itself, so that the pairs it walks cannot go away under it (and, like the
// dictionary, takes part in garbage collection: a dictionary may hold an iterator over itself).
// Like a dict's own iterator it notices the pairs changing under it: `size` is the count it started with (-1
// once a change of size was reported, so that every later call reports it again), `remaining` how many keys
// it has yet to yield; finding one more than that means keys were deleted and added.
struct DictionaryIter {
    PyObject_HEAD
    PyObject* dictionary;
    Py_ssize_t position;
    bool done;
    Py_ssize_t size;
    Py_ssize_t remaining;
};

PyObject* g_type = nullptr;
PyObject* g_iterType = nullptr;

bool isDictionary(PyObject* obj) { return g_type && PyObject_TypeCheck(obj, reinterpret_cast<PyTypeObject*>(g_type)); }

// The inner dict, or null with IndexError set (only an object the garbage collector has cleared lacks it).
PyObject* innerOf(PyObject* self) {
    DictionaryState* s = reinterpret_cast<VeltraDictionary*>(self)->state;
    if (!s || !s->dict) return fail(PyExc_IndexError, kNoContents);
    return s->dict;
}

// ---- construction ----

// What a constructor argument holds: a dict to copy, nothing (an empty dictionary), or null with an error.
struct Extracted {
    PyObject* dict = nullptr;  // borrowed
    bool empty = false;
};
bool extractMapping(PyObject* arg, Ref& hold, Extracted& out) {
    if (isDictionary(arg)) {
        out.dict = innerOf(arg);
        return out.dict != nullptr;
    }
    Ref type = Ref::steal(PyType_GetName(Py_TYPE(arg)));
    if (!type) return false;
    if (PyUnicode_CompareWithASCIIString(type.get(), "UserDict") == 0) {
        hold = Ref::steal(PyObject_GetAttrString(arg, "data"));
        if (!hold) {
            if (!PyErr_ExceptionMatches(PyExc_AttributeError) || !pyutil::clearOrdinary()) return false;
            out.empty = true;  // a UserDict without its data holds nothing
            return true;
        }
        arg = hold.get();
    }
    if (PyDict_Check(arg)) out.dict = arg;
    return true;
}

bool fill(DictionaryState& s, PyObject* arg, PyObject* kwargs) {
    if (!arg) {
        s.dict = PyDict_New();
    } else {
        Ref typeName = Ref::steal(PyType_GetName(Py_TYPE(arg)));
        if (!typeName) return false;
        if (PyUnicode_CompareWithASCIIString(typeName.get(), "ChainMap") == 0) {
            Ref items = Ref::steal(PyMapping_Items(arg));
            if (!items) return fail(PyExc_ValueError, "unable to retrieve contents of ChainMap object");
            s.dict = PyDict_New();
            // Without overriding: a key in several maps keeps the first map's value, as the ChainMap does.
            if (s.dict && PyDict_MergeFromSeq2(s.dict, items.get(), 0) < 0) return false;
        } else {
            Ref hold;
            Extracted e;
            if (!extractMapping(arg, hold, e)) return false;
            if (e.dict) s.dict = PyDict_Copy(e.dict);
            else if (e.empty) s.dict = PyDict_New();
            else
                return fail(PyExc_TypeError, "conversion of object of type '" + pyutil::typeName(arg) +
                                                 "' to a veltra.dictionary not supported");
        }
    }
    if (!s.dict) return false;
    if (kwargs && PyDict_Size(kwargs) > 0) {
        if (!PyMapping_Check(kwargs)) return fail(PyExc_TypeError, "keyword argument object is not a dict");
        Py_ssize_t pos = 0;
        PyObject *key, *value;
        while (PyDict_Next(kwargs, &pos, &key, &value)) {
            if (PyDict_SetItem(s.dict, key, value) < 0) {
                if (!pyutil::clearOrdinary()) return false;
                return fail(PyExc_TypeError, "unable to set element at offset " + std::to_string(pos - 1));
            }
        }
    }
    return true;
}

PyObject* newDictionary(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    if (!type) return fail(PyExc_SystemError, "veltraDictionary_new_internal: type is NULL");
    auto alloc = reinterpret_cast<allocfunc>(PyType_GetSlot(type, Py_tp_alloc));
    Ref self = Ref::steal(alloc(type, 0));
    if (!self) return PyErr_NoMemory();
    auto* d = reinterpret_cast<VeltraDictionary*>(self.get());
    d->state = new (std::nothrow) DictionaryState();
    if (!d->state) return PyErr_NoMemory();
    PyObject* arg = nullptr;
    if (!PyArg_ParseTuple(args, "|O", &arg)) return nullptr;
    if (!fill(*d->state, arg, kwargs)) return nullptr;
    return self.release();
}

// ---- lifetime (the garbage collector takes part: a dictionary may hold itself) ----

int traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    DictionaryState* s = reinterpret_cast<VeltraDictionary*>(self)->state;
    if (s) Py_VISIT(s->dict);
    return 0;
}

int clear(PyObject* self) {
    DictionaryState* s = reinterpret_cast<VeltraDictionary*>(self)->state;
    if (s) Py_CLEAR(s->dict);
    return 0;
}

void dealloc(PyObject* self) {
    PyObject_GC_UnTrack(self);
    auto* d = reinterpret_cast<VeltraDictionary*>(self);
    if (d->state) {
        Py_CLEAR(d->state->dict);
        delete d->state;
        d->state = nullptr;
    }
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free))(self);
    Py_DECREF(type);
}

// ---- the mapping ----

Py_ssize_t length(PyObject* self) {
    PyObject* inner = innerOf(self);
    return inner ? PyDict_Size(inner) : -1;
}

PyObject* subscript(PyObject* self, PyObject* key) {
    PyObject* inner = innerOf(self);
    return inner ? PyObject_GetItem(inner, key) : nullptr;
}

int assignSubscript(PyObject* self, PyObject* key, PyObject* value) {
    PyObject* inner = innerOf(self);
    if (!inner) return -1;
    reinterpret_cast<VeltraDictionary*>(self)->state->unchanged = 0;
    return value ? PyObject_SetItem(inner, key, value) : PyObject_DelItem(inner, key);
}

PyObject* str(PyObject* self) {
    PyObject* inner = innerOf(self);
    return inner ? PyObject_Str(inner) : nullptr;
}

PyObject* repr(PyObject* self) {
    PyObject* inner = innerOf(self);
    return inner ? PyUnicode_FromFormat("veltra.dictionary(%S)", inner) : nullptr;
}

PyObject* iter(PyObject* self) {
    PyObject* inner = innerOf(self);
    if (!inner) return nullptr;
    auto* type = reinterpret_cast<PyTypeObject*>(g_iterType);
    auto alloc = reinterpret_cast<allocfunc>(PyType_GetSlot(type, Py_tp_alloc));
    PyObject* it = alloc(type, 0);
    if (!it) return nullptr;
    auto* i = reinterpret_cast<DictionaryIter*>(it);
    i->dictionary = Py_NewRef(self);
    i->position = 0;
    i->done = false;
    i->size = i->remaining = PyDict_Size(inner);
    return it;
}

// ---- methods ----

PyObject* methodClear(PyObject* self, PyObject*) {
    PyObject* inner = innerOf(self);
    if (!inner) return nullptr;
    PyDict_Clear(inner);  // leaves the unchanged flag as it is, on purpose
    Py_RETURN_NONE;
}
// items, keys, todict, values: `op` on the wrapped dict.
template <PyObject* (*Op)(PyObject*)>
PyObject* onInner(PyObject* self, PyObject*) {
    PyObject* inner = innerOf(self);
    return inner ? Op(inner) : nullptr;
}

// ---- comparison ----

// Same size, and every pair of the first found in the second with a value of the same type or a subtype of
// it that compares equal: not symmetric when one value's type derives from the other's, on purpose. Ordinary
// errors raised while looking up or comparing count as "not equal"; any other (KeyboardInterrupt ...) passes
// up, -1.
int equal(PyObject* a, PyObject* b) {
    if (!isDictionary(a) || !isDictionary(b)) return 0;  // an impostor that only carries the name
    PyObject* x = reinterpret_cast<VeltraDictionary*>(a)->state ? reinterpret_cast<VeltraDictionary*>(a)->state->dict : nullptr;
    PyObject* y = reinterpret_cast<VeltraDictionary*>(b)->state ? reinterpret_cast<VeltraDictionary*>(b)->state->dict : nullptr;
    if (!x || !y) return 0;
    if (PyDict_Size(x) != PyDict_Size(y)) return 0;
    const Ref holdX = Ref::borrow(x), holdY = Ref::borrow(y);
    const auto notEqual = [] { return pyutil::clearOrdinary() ? 0 : -1; };
    Py_ssize_t pos = 0;
    PyObject *key, *value;
    while (PyDict_Next(x, &pos, &key, &value)) {
        // Comparing runs Python code, which may change either dict: hold what is compared.
        const Ref k = Ref::borrow(key), v = Ref::borrow(value);
        PyObject* other = PyDict_GetItemWithError(y, k.get());
        if (!other) return notEqual();
        const Ref w = Ref::borrow(other);
        if (!PyType_IsSubtype(Py_TYPE(w.get()), Py_TYPE(v.get()))) return 0;
        if (PyObject_RichCompareBool(v.get(), w.get(), Py_EQ) != 1) return notEqual();
    }
    return 1;
}

PyObject* compare(PyObject* self, PyObject* other, int op) {
    return richCompare(self, other, op, kTypeName, equal,
                       [](PyObject* o) { return static_cast<int>(pyutil::typeName(o) == kTypeName); });
}

// ---- the iterator ----

int iterTraverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(reinterpret_cast<DictionaryIter*>(self)->dictionary);
    return 0;
}

int iterClear(PyObject* self) {
    Py_CLEAR(reinterpret_cast<DictionaryIter*>(self)->dictionary);
    return 0;
}

void iterDealloc(PyObject* self) {
    PyObject_GC_UnTrack(self);
    Py_CLEAR(reinterpret_cast<DictionaryIter*>(self)->dictionary);
    PyTypeObject* type = Py_TYPE(self);
    reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free))(self);
    Py_DECREF(type);
}

PyObject* iterSelf(PyObject* self) { return Py_NewRef(self); }

PyObject* iterNext(PyObject* self) {
    auto* it = reinterpret_cast<DictionaryIter*>(self);
    if (it->done || !it->dictionary) return nullptr;
    DictionaryState* s = reinterpret_cast<VeltraDictionary*>(it->dictionary)->state;
    if (s && s->dict && PyDict_Size(s->dict) != it->size) {
        it->size = -1;
        return fail(PyExc_RuntimeError, "dictionary changed size during iteration");
    }
    PyObject *key, *value;
    if (!s || !s->dict || !PyDict_Next(s->dict, &it->position, &key, &value)) {
        it->done = true;  // exhausted for good
        return nullptr;
    }
    if (it->remaining == 0) {
        it->done = true;
        return fail(PyExc_RuntimeError, "dictionary keys changed during iteration");
    }
    --it->remaining;
    return Py_NewRef(key);
}

PyMethodDef g_methods[] = {
    {"clear", methodClear, METH_NOARGS, "clear deletes all key-value pairs in the dictionary"},
    {"items", onInner<PyDict_Items>, METH_NOARGS, "items returns the key-value pairs as a list"},
    {"keys", onInner<PyDict_Keys>, METH_NOARGS, "keys returns the keys as a list"},
    {"todict", onInner<PyDict_Copy>, METH_NOARGS, "todict returns a dict with the same key-value pairs as the original"},
    {"values", onInner<PyDict_Values>, METH_NOARGS, "values returns the values as a list"},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot g_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_doc, const_cast<char*>("VELTRA dictionary")},
    {Py_tp_repr, reinterpret_cast<void*>(repr)},
    {Py_tp_str, reinterpret_cast<void*>(str)},
    {Py_mp_length, reinterpret_cast<void*>(length)},
    {Py_mp_subscript, reinterpret_cast<void*>(subscript)},
    {Py_mp_ass_subscript, reinterpret_cast<void*>(assignSubscript)},
    {Py_tp_richcompare, reinterpret_cast<void*>(compare)},
    {Py_tp_iter, reinterpret_cast<void*>(iter)},
    {Py_tp_methods, g_methods},
    {Py_tp_new, reinterpret_cast<void*>(newDictionary)},
    {Py_tp_hash, reinterpret_cast<void*>(PyObject_HashNotImplemented)},
    {0, nullptr},
};

PyType_Spec g_spec = {kTypeName, static_cast<int>(sizeof(VeltraDictionary)), 0,
                      Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, g_slots};

PyType_Slot g_iterSlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(iterDealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(iterTraverse)},
    {Py_tp_clear, reinterpret_cast<void*>(iterClear)},
    {Py_tp_doc, const_cast<char*>("Internal iterator object")},
    {Py_tp_iter, reinterpret_cast<void*>(iterSelf)},
    {Py_tp_iternext, reinterpret_cast<void*>(iterNext)},
    {0, nullptr},
};

PyType_Spec g_iterSpec = {"veltra.dictionary_iter", static_cast<int>(sizeof(DictionaryIter)), 0,
                          Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_HAVE_GC,
                          g_iterSlots};

}  // namespace

PyObject* newDictionaryFromEngine(PyObject* pairs, const foundation::veltradata::Array& source, bool valuesFixed) {
    Ref owned = Ref::steal(pairs);
    if (!owned) return nullptr;
    if (!g_type) {
        Ref type = Ref::steal(dictionaryType());
        if (!type) return nullptr;
    }
    auto* type = reinterpret_cast<PyTypeObject*>(g_type);
    auto alloc = reinterpret_cast<allocfunc>(PyType_GetSlot(type, Py_tp_alloc));
    Ref self = Ref::steal(alloc(type, 0));
    if (!self) return nullptr;
    auto* d = reinterpret_cast<VeltraDictionary*>(self.get());
    d->state = new (std::nothrow) DictionaryState();
    if (!d->state) return PyErr_NoMemory();
    d->state->dict = owned.release();
    d->state->source = source;
    d->state->unchanged = 1;
    d->state->valuesFixed = valuesFixed;
    return self.release();
}

bool dictionaryContents(PyObject* obj, PyObject*& pairs, std::optional<foundation::veltradata::Array>& unchangedSource,
                        bool& valuesFixed) {
    if (!isDictionary(obj)) return false;
    const DictionaryState* s = reinterpret_cast<VeltraDictionary*>(obj)->state;
    pairs = s ? s->dict : nullptr;
    unchangedSource.reset();
    valuesFixed = false;
    if (s && s->unchanged && s->source) {
        unchangedSource = s->source;
        valuesFixed = s->valuesFixed != 0;
    }
    return true;
}

PyObject* dictionaryType() {
    if (!g_type) g_type = PyType_FromSpec(&g_spec);  // kept for the life of the process
    return g_type ? Py_NewRef(g_type) : nullptr;
}

PyObject* dictionaryIterType() {
    if (!g_iterType) g_iterType = PyType_FromSpec(&g_iterSpec);
    return g_iterType ? Py_NewRef(g_iterType) : nullptr;
}

}  // namespace PythonVeltraDataArray::types
