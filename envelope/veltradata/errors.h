// Exceptions of the array library. Callers only ever read what(); the two fixed texts are shared constants.
#pragma once

#include <stdexcept>
#include <string>

namespace foundation::veltradata {

inline constexpr const char* kIndexOutOfRange = "Array index is out of range.";
inline constexpr const char* kUnknownDataType = "Unknown DataType field in veltra::data::Array.";

class ArrayException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class IndexOutOfRangeException : public ArrayException {
public:
    IndexOutOfRangeException() : ArrayException(kIndexOutOfRange) {}
};

class InvalidArrayTypeException : public ArrayException {
public:
    InvalidArrayTypeException() : ArrayException(kUnknownDataType) {}
};

// A typed view or element access that does not fit the array's kind.
class TypeMismatchException : public ArrayException {
public:
    using ArrayException::ArrayException;
};

class InvalidFieldNameException : public ArrayException {
public:
    using ArrayException::ArrayException;
};

class NonAsciiCharException : public ArrayException {
public:
    using ArrayException::ArrayException;
};

// Dimensions whose element count or byte count does not fit in 64 bits.
class DimensionsOverflowException : public ArrayException {
public:
    using ArrayException::ArrayException;
};

}  // namespace foundation::veltradata
