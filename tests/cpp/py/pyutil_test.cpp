// The shared Python helpers and the converter bases' convention, on a live interpreter.
#include <Python.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "convert/converter.h"
#include "pyutil/buffer.h"
#include "pyutil/error.h"
#include "pyutil/ref.h"

namespace {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayType;
using foundation::veltradata::ClientArrayFactory;
using PythonVeltraDataArray::detail::ConversionState;
using PythonVeltraDataArray::detail::ToArrayConverter;
using PythonVeltraDataArray::detail::ToPythonConverter;
using PythonVeltraDataArray::pyutil::BufferView;
using PythonVeltraDataArray::pyutil::ErrorAside;
using PythonVeltraDataArray::pyutil::Ref;

// The pending error's type and text, cleared; {nullptr, ""} when none is pending.
std::pair<PyObject*, std::string> takeError() {
    if (!PyErr_Occurred()) return {nullptr, ""};
    PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref t = Ref::steal(type), v = Ref::steal(value), tb = Ref::steal(traceback);
    Ref text = Ref::steal(PyObject_Str(v.get()));
    return {t.get(), PyUnicode_AsUTF8AndSize(text.get(), nullptr)};
}

enum class Outcome { NothingSet, Throws, ValueWithError, Fine };

// A converter that does whatever the test plants.
class Planted final : public ToArrayConverter {
public:
    explicit Planted(Outcome o) : ToArrayConverter(std::make_shared<ClientArrayFactory>()), outcome_(o) {}

protected:
    std::optional<Array> doConvert(PyObject*, const ConversionState&) override {
        switch (outcome_) {
            case Outcome::NothingSet: return std::nullopt;
            case Outcome::Throws: throw std::runtime_error("The array dimensions are too large.");
            case Outcome::ValueWithError: PyErr_SetString(PyExc_OverflowError, "too big"); break;
            case Outcome::Fine: break;
        }
        return factory().createArray(ArrayType::DOUBLE, {1, 1});
    }

private:
    Outcome outcome_;
};

class PlantedToPython final : public ToPythonConverter {
public:
    PlantedToPython() : ToPythonConverter(std::make_shared<ClientArrayFactory>()) {}

protected:
    PyObject* doConvert(const Array&) override { return nullptr; }
};

struct Case {
    Outcome outcome;
    PyObject* type;
    const char* text;
};

class ConverterConvention : public ::testing::TestWithParam<Case> {};

TEST_P(ConverterConvention, EmptyResultComesWithExactlyOneError) {
    const Case c = GetParam();
    Planted converter(c.outcome);
    Ref obj = Ref::steal(PyFloat_FromDouble(1.0));
    const std::optional<Array> result = converter.convert(obj.get(), ConversionState::topLevel());
    const auto [type, text] = takeError();
    EXPECT_EQ(result.has_value(), c.type == nullptr);
    EXPECT_EQ(type, c.type);
    EXPECT_EQ(text, c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, ConverterConvention,
    ::testing::Values(
        Case{Outcome::NothingSet, PyExc_RuntimeError,
             "internal error: the converter Planted failed without setting a Python exception"},
        Case{Outcome::Throws, PyExc_ValueError, "The array dimensions are too large."},
        Case{Outcome::ValueWithError, PyExc_OverflowError, "too big"}, Case{Outcome::Fine, nullptr, ""}));

TEST(ConverterConvention, NullObjectIsRefusedBeforeTheBody) {
    Planted converter(Outcome::Fine);
    EXPECT_FALSE(converter.convert(nullptr, ConversionState::topLevel()));
    const auto [type, text] = takeError();
    EXPECT_EQ(type, PyExc_RuntimeError);
    EXPECT_EQ(text, "passing null Python object pointer to VELTRA not supported");
}

TEST(ConverterConvention, ToPythonNullWithoutErrorNamesTheConverter) {
    PlantedToPython converter;
    EXPECT_EQ(converter.convert(Array()), nullptr);
    const auto [type, text] = takeError();
    EXPECT_EQ(type, PyExc_RuntimeError);
    EXPECT_EQ(text, "internal error: the converter PlantedToPython failed without setting a Python exception");
}

// A bytearray refuses to resize while a buffer of it is held: the guard must have let go on every path.
TEST(BufferView, ReleasesWhenCodeThrowsWhileHeld) {
    Ref bytes = Ref::steal(PyByteArray_FromStringAndSize("abcd", 4));
    try {
        BufferView view;
        ASSERT_TRUE(view.acquire(bytes.get(), PyBUF_SIMPLE));
        EXPECT_EQ(PyByteArray_Resize(bytes.get(), 8), -1);  // held: BufferError
        PyErr_Clear();
        throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
    }
    EXPECT_EQ(PyByteArray_Resize(bytes.get(), 8), 0);
}

TEST(BufferView, ReleaseKeepsAPendingError) {
    Ref bytes = Ref::steal(PyByteArray_FromStringAndSize("abcd", 4));
    {
        BufferView view;
        ASSERT_TRUE(view.acquire(bytes.get(), PyBUF_SIMPLE));
        PyErr_SetString(PyExc_KeyError, "kept");
    }
    EXPECT_EQ(takeError().second, "'kept'");
    EXPECT_EQ(PyByteArray_Resize(bytes.get(), 8), 0);
}

TEST(ErrorAside, PutsTheErrorBackAndDropsWhatCameInBetween) {
    PyErr_SetString(PyExc_KeyError, "first");
    {
        ErrorAside aside;
        EXPECT_FALSE(PyErr_Occurred());
        PyErr_SetString(PyExc_ValueError, "second");
    }
    const auto [type, text] = takeError();
    EXPECT_EQ(type, PyExc_KeyError);
    EXPECT_EQ(text, "'first'");
}

TEST(ReplaceError, ChainsTheReplacedErrorAsCause) {
    PyErr_SetString(PyExc_KeyError, "low");
    PythonVeltraDataArray::pyutil::replaceError(PyExc_TypeError, "cannot read: ", true);
    PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref t = Ref::steal(type), v = Ref::steal(value), tb = Ref::steal(traceback);
    EXPECT_EQ(t.get(), PyExc_TypeError);
    Ref text = Ref::steal(PyObject_Str(v.get()));
    EXPECT_STREQ(PyUnicode_AsUTF8AndSize(text.get(), nullptr), "cannot read: 'low'");
    Ref cause = Ref::steal(PyException_GetCause(v.get()));
    ASSERT_TRUE(cause);
    EXPECT_TRUE(PyErr_GivenExceptionMatches(cause.get(), PyExc_KeyError));
}

}  // namespace
