#include "convert/text_arrays.h"

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "convert/budget.h"
#include "convert/numpy_time.h"
#include "convert/text.h"
#include "pyutil/buffer.h"
#include "pyutil/type_name.h"

namespace PythonVeltraDataArray::detail {

namespace {

using foundation::veltradata::Dims;
using foundation::veltradata::VeltraString;

// The numpy shape as dimensions: () -> 1-by-1, (n,) -> 1-by-n.
std::optional<Dims> dimsOf(PyObject* array) {
    Ref shape = Ref::steal(PyObject_GetAttrString(array, "shape"));
    if (!shape || !PyTuple_Check(shape.get())) return shape ? fail(PyExc_TypeError, "numpy shape is not a tuple") : failed();
    Dims dims;
    for (Py_ssize_t k = 0, n = PyTuple_Size(shape.get()); k < n; ++k) {
        const unsigned long long d = PyLong_AsUnsignedLongLong(PyTuple_GetItem(shape.get(), k));
        if (d == static_cast<unsigned long long>(-1) && PyErr_Occurred()) return failed();
        dims.push_back(d);
    }
    if (dims.empty()) dims = {1, 1};
    else if (dims.size() == 1) dims.insert(dims.begin(), 1);
    return dims;
}

// The array flattened in column-major order (a contiguous copy, in native byte order).
Ref flatColumnMajor(PyObject* array) {
    Ref ravel = Ref::steal(PyObject_GetAttrString(array, "ravel"));
    Ref args = Ref::steal(PyTuple_New(0));
    Ref kwargs = Ref::steal(Py_BuildValue("{s:s}", "order", "F"));
    if (!ravel || !args || !kwargs) return Ref();
    Ref flat = Ref::steal(PyObject_Call(ravel.get(), args.get(), kwargs.get()));
    if (!flat) return Ref();
    Ref dtype = Ref::steal(PyObject_GetAttrString(flat.get(), "dtype"));
    Ref native = dtype ? Ref::steal(PyObject_CallMethod(dtype.get(), "newbyteorder", "s", "=")) : Ref();
    if (!native) return Ref();
    Ref astype = Ref::steal(PyObject_GetAttrString(flat.get(), "astype"));
    Ref castArgs = Ref::steal(PyTuple_Pack(1, native.get()));
    Ref castKwargs = Ref::steal(Py_BuildValue("{s:O}", "copy", Py_False));
    if (!astype || !castArgs || !castKwargs) return Ref();
    return Ref::steal(PyObject_Call(astype.get(), castArgs.get(), castKwargs.get()));
}


// UCS4 code points (trailing NULs dropped) as UTF-16; a lone surrogate fails as it does for a str.
bool utf16FromUcs4(const std::uint32_t* p, std::size_t n, std::u16string& out) {
    while (n && p[n - 1] == 0) --n;
    out.clear();
    const std::size_t taken = appendUtf16(p, n, out);
    if (taken == n) return true;
    if (p[taken] > 0x10FFFF) return fail(PyExc_ValueError, "numpy text holds a code point beyond U+10FFFF");
    const std::uint32_t probe = 1;
    int order = *reinterpret_cast<const unsigned char*>(&probe) == 1 ? -1 : 1;  // the native order
    Ref text = Ref::steal(PyUnicode_DecodeUTF32(reinterpret_cast<const char*>(p), static_cast<Py_ssize_t>(n * 4),
                                                "surrogatepass", &order));
    if (text) pyUnicodeToUtf16(text.get());  // sets the codec's error
    return false;
}

}  // namespace

std::optional<Array> numpyTextArray(ArrayFactory& f, PyObject* array, char kind, const ConversionState& state,
                                    bool& notText) {
    notText = false;
    std::optional<Dims> dims = dimsOf(array);
    if (!dims) return failed();
    // Charged before the column-major copy, which a broadcast view would make at its full claimed size: the
    // UTF-16 of text takes at most twice its UCS4 or byte size, an object element at least two bytes.
    // Both numbers are the array's own word: products that do not fit 64 bits saturate, and are refused.
    std::uint64_t claimed = 0, itemsize = 0;
    if (!numpySize(array, claimed, itemsize)) return failed();
    using foundation::veltradata::saturatingProduct;
    const std::uint64_t estimate = kind == 'O'   ? saturatingProduct(claimed, 2)
                                   : kind == 'U' ? saturatingProduct(claimed, itemsize / 2)
                                                 : saturatingProduct(saturatingProduct(claimed, itemsize), 2);
    if (state.budget && !state.budget->chargeBytes(estimate)) return failed();
    Ref flat = flatColumnMajor(array);
    if (!flat) return failed();
    std::vector<VeltraString> texts;
    std::uint64_t units = 0;

    if (kind == 'O') {
        Ref items = Ref::steal(PyObject_CallMethod(flat.get(), "tolist", nullptr));
        if (!items || !PyList_Check(items.get())) return items ? fail(PyExc_TypeError, "tolist did not give a list") : failed();
        const Py_ssize_t n = PyList_Size(items.get());
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* item = PyList_GetItem(items.get(), i);
            if (!PyUnicode_Check(item) && !isMissingText(item)) {
                notText = true;
                return std::nullopt;
            }
        }
        texts.reserve(static_cast<std::size_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* item = PyList_GetItem(items.get(), i);
            if (!PyUnicode_Check(item)) {
                texts.emplace_back();
                continue;
            }
            std::optional<std::u16string> u = pyUnicodeToUtf16(item);
            if (!u) return failed();
            units += u->size();
            texts.emplace_back(std::move(*u));
        }
    } else {
        pyutil::BufferView view;
        if (!view.acquire(flat.get(), PyBUF_C_CONTIGUOUS | PyBUF_FORMAT)) return failed();
        const std::size_t itemsize = static_cast<std::size_t>(view->itemsize);
        const std::size_t n = itemsize ? static_cast<std::size_t>(view->len) / itemsize : 0;
        const auto* base = static_cast<const char*>(view->buf);
        texts.reserve(n);
        std::u16string text;
        std::vector<std::uint32_t> cps;
        for (std::size_t i = 0; i < n; ++i) {
            if (!pollSignals()) return failed();
            const char* p = base + i * itemsize;
            if (kind == 'U') {
                cps.assign(itemsize / 4, 0);
                std::memcpy(cps.data(), p, cps.size() * 4);  // the element may not be aligned
                if (!utf16FromUcs4(cps.data(), cps.size(), text)) return failed();
                texts.emplace_back(text);
            } else {
                std::size_t len = itemsize;
                while (len && p[len - 1] == 0) --len;
                Ref str = Ref::steal(PyUnicode_DecodeUTF8(p, static_cast<Py_ssize_t>(len), "strict"));
                std::optional<std::u16string> u = str ? pyUnicodeToUtf16(str.get()) : std::nullopt;
                if (!u) return failed();
                texts.emplace_back(std::move(*u));
            }
        }
        return Array(f.createStringArray(std::move(*dims), std::move(texts)));
    }
    if (state.budget && units * 2 > estimate && !state.budget->chargeBytes(units * 2 - estimate)) return failed();
    return Array(f.createStringArray(std::move(*dims), std::move(texts)));
}

bool isMissingText(PyObject* item) {
    if (item == Py_None) return true;
    if (PyFloat_Check(item)) return std::isnan(PyFloat_AsDouble(item));
    // pandas.NA, whose type pandas 2 and 3 place in different modules.
    const std::string name = pyutil::typeName(item);
    return name.rfind("pandas.", 0) == 0 && name.size() > 7 && name.compare(name.size() - 7, 7, ".NAType") == 0;
}

}  // namespace PythonVeltraDataArray::detail
