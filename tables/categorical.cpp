#include "tables/categorical.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "convert/budget.h"
#include "convert/numpy_time.h"
#include "envelope/engine_names.h"
#include "pyutil/buffer.h"
#include "tables/table_to_dataframe.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::Dims;
using foundation::veltradata::ValueObject;
using foundation::veltradata::ValueObjectArray;
using foundation::veltradata::VeltraClassIdentifier;
using foundation::veltradata::VeltraPropertyIdentifier;
namespace engine = foundation::veltradata::engine;

struct CategoricalIds {
    VeltraClassIdentifier cls{engine::categorical::kClass};
    VeltraPropertyIdentifier names{engine::categorical::kCategoryNames}, codes{engine::categorical::kCodes};
};
const CategoricalIds& ids() {
    static const CategoricalIds kIds;
    return kIds;
}

// str() of every category, as UTF-8.
bool categoryTexts(PyObject* categories, std::vector<std::string>& out) {
    Ref list = Ref::steal(PySequence_List(categories));
    if (!list) return false;
    const Py_ssize_t k = PyList_Size(list.get());
    out.reserve(static_cast<std::size_t>(k));
    for (Py_ssize_t i = 0; i < k; ++i) {
        Ref text = Ref::steal(PyObject_Str(PyList_GetItem(list.get(), i)));
        Py_ssize_t size = 0;
        const char* utf8 = text ? PyUnicode_AsUTF8AndSize(text.get(), &size) : nullptr;
        if (!utf8) return false;
        out.emplace_back(utf8, static_cast<std::size_t>(size));
    }
    return true;
}

// The pandas codes (-1 for missing) as int64, whatever integer width pandas chose.
bool pandasCodes(PyObject* cat, std::vector<std::int64_t>& out) {
    Ref codes = Ref::steal(PyObject_GetAttrString(cat, "codes"));
    Ref values = codes ? Ref::steal(PyObject_CallMethod(codes.get(), "to_numpy", "(s)", "int64")) : Ref();
    if (!values) return false;
    pyutil::BufferView view;
    if (!view.acquire(values.get(), PyBUF_C_CONTIGUOUS | PyBUF_FORMAT)) return false;
    if (view->itemsize != 8) return fail(PyExc_TypeError, "categorical codes are not 64-bit integers");
    const auto* p = static_cast<const std::int64_t*>(view->buf);
    out.assign(p, p + view->len / 8);
    return true;
}

template <typename T>
Array codesArray(ArrayFactory& f, const std::vector<std::int64_t>& pandas, const std::vector<std::uint32_t>& remap) {
    const std::uint64_t n = pandas.size();
    Array a = f.createArray(foundation::veltradata::ElementKind<T>::value, {n, 1});
    T* out = reinterpret_cast<T*>(foundation::veltradata::mutableElementBytes(a));
    for (std::uint64_t i = 0; i < n; ++i) out[i] = pandas[i] < 0 ? T(0) : static_cast<T>(remap[pandas[i]]);
    return a;
}

// Code i of a numeric array as an unsigned position; false for a negative or fractional one.
bool codeAt(const Array& codes, std::uint64_t i, std::uint64_t& out) {
    const ArrayType t = codes.getType();
    if (t == ArrayType::DOUBLE || t == ArrayType::SINGLE) {
        const double x = codes[i].castTo<double>();
        if (std::isnan(x)) {
            out = 0;
            return true;
        }
        if (!(x >= 0 && x < 1.8e19) || x != std::floor(x)) return false;
        out = static_cast<std::uint64_t>(x);
        return true;
    }
    if (t == ArrayType::UINT64) {
        out = codes[i].castTo<std::uint64_t>();
        return true;
    }
    const std::int64_t v = codes[i].castTo<std::int64_t>();
    if (v < 0) return false;
    out = static_cast<std::uint64_t>(v);
    return true;
}

bool isIntegerKind(ArrayType t) {
    return (t >= ArrayType::INT8 && t <= ArrayType::UINT64) || t == ArrayType::DOUBLE || t == ArrayType::SINGLE;
}

}  // namespace

std::optional<Array> categoricalFromSeries(ArrayFactory& f, PyObject* series, const ConversionState& state) {
    Ref cat = Ref::steal(PyObject_GetAttrString(series, "cat"));
    Ref categories = cat ? Ref::steal(PyObject_GetAttrString(cat.get(), "categories")) : Ref();
    std::vector<std::string> texts;
    std::vector<std::int64_t> codes;
    if (!categories || !categoryTexts(categories.get(), texts) || !pandasCodes(cat.get(), codes)) return failed();
    const std::uint64_t n = codes.size();
    if (state.budget && !state.budget->chargeBytes(n * 4)) return failed();

    // Only the categories some element uses, sorted by their text; equal texts share one name.
    std::vector<char> used(texts.size(), 0);
    for (std::int64_t c : codes) {
        if (c >= static_cast<std::int64_t>(texts.size())) return fail(PyExc_ValueError, "categorical code out of range");
        if (c >= 0) used[static_cast<std::size_t>(c)] = 1;
    }
    std::vector<std::uint32_t> order;
    for (std::size_t i = 0; i < texts.size(); ++i)
        if (used[i]) order.push_back(static_cast<std::uint32_t>(i));
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) { return texts[a] < texts[b]; });
    std::vector<std::uint32_t> remap(texts.size(), 0);
    std::vector<Array> names;
    std::string previous;
    for (std::size_t j = 0; j < order.size(); ++j) {
        const std::string& text = texts[order[j]];
        if (names.empty() || text != previous) {
            names.push_back(f.createCharArray(text));
            previous = text;
        }
        remap[order[j]] = static_cast<std::uint32_t>(names.size());
    }
    const std::uint64_t k = names.size();
    Array codesOut = k < 256     ? codesArray<std::uint8_t>(f, codes, remap)
                     : k < 65536 ? codesArray<std::uint16_t>(f, codes, remap)
                                 : codesArray<std::uint32_t>(f, codes, remap);

    const CategoricalIds& id = ids();
    ValueObjectArray out = f.createValueObjectScalar(id.cls, {id.names, id.codes});
    out.setProperty(0, id.names, f.createCellArray({k, 1}, std::move(names)));
    out.setProperty(0, id.codes, codesOut);
    return Array(std::move(out));
}

PyObject* categoricalToPython(const Array& a) {
    const CategoricalIds& id = ids();
    constexpr char kLayout[] = "VELTRA categorical must be 1-by-1 and hold 'categoryNames' and 'codes'";
    if (a.getNumberOfElements() != 1) return fail(PyExc_ValueError, kLayout);
    const ValueObject& v = foundation::veltradata::valueObjects(a)[0];
    if (!v.hasProperty(id.names) || !v.hasProperty(id.codes)) return fail(PyExc_ValueError, kLayout);
    const Array& codes = v[id.codes];
    if (!isIntegerKind(codes.getType()))
        return fail(PyExc_ValueError, "VELTRA categorical codes must be integers");
    std::vector<Ref> texts;
    if (!namesOf(v[id.names], "VELTRA categorical category names", texts)) return nullptr;
    Ref names = Ref::steal(PyList_New(static_cast<Py_ssize_t>(texts.size())));
    if (!names) return nullptr;
    for (std::size_t i = 0; i < texts.size(); ++i) PyList_SetItem(names.get(), static_cast<Py_ssize_t>(i), texts[i].release());
    const std::uint64_t k = static_cast<std::uint64_t>(PyList_Size(names.get()));

    // pandas codes: 0-based, -1 for missing.
    const std::uint64_t n = codes.getNumberOfElements();
    TimeArrayBuilder shifted;
    if (!shifted.start(n)) return nullptr;
    std::int64_t* out = shifted.data();
    for (std::uint64_t i = 0; i < n; ++i) {
        std::uint64_t c = 0;
        if (!codeAt(codes, i, c) || c > k)
            return fail(PyExc_ValueError, "VELTRA categorical code at position " + std::to_string(i) +
                                              " does not name one of its " + std::to_string(k) + " categories");
        out[i] = static_cast<std::int64_t>(c) - 1;
    }
    Ref flat = Ref::steal(shifted.finish("int64", Dims{1, n}));  // one-dimensional
    Ref pandas = flat ? Ref::steal(PyImport_ImportModule("pandas")) : Ref();
    Ref categorical = pandas ? Ref::steal(PyObject_GetAttrString(pandas.get(), "Categorical")) : Ref();
    if (!categorical) return nullptr;
    Ref result = Ref::steal(PyObject_CallMethod(categorical.get(), "from_codes", "(OO)", flat.get(), names.get()));
    if (!result) pyutil::replaceError(PyExc_ValueError, "unable to create pandas.Categorical from VELTRA categorical: ", true);
    return result.release();
}

}  // namespace PythonVeltraDataArray::detail
