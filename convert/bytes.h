// bytes and bytearray -> 1-by-N UINT8 row vectors. There is no way back: UINT8 results are numeric arrays.
#pragma once

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

class PyBytesToUint8 final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

class PyByteArrayToUint8 final : public ToArrayConverter {
public:
    using ToArrayConverter::ToArrayConverter;

protected:
    std::optional<Array> doConvert(PyObject* obj, const ConversionState& state) override;
};

}  // namespace PythonVeltraDataArray::detail
