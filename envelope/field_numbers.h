// The schema's field numbers, taken from the generated classes so that the schema stays the one source, and
// the head every writer gives an array. Internal to envelope/: the codecs that work on the wire format
// directly share them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veltra_array.pb.h"
#include "veltra_common.pb.h"
#include "veltradata/array_type.h"
#include "wire_format.h"

namespace foundation::veltradata::protobuf::field {

using foundation::protobuf::common::VELTRA_Error;
using foundation::protobuf::common::VELTRA_Params;
using foundation::protobuf::common::VELTRA_Result;
using foundation::protobuf::common::VELTRA_StackFrame;

constexpr int kType = VELTRA_Array::kTypeFieldNumber;
constexpr int kDims = VELTRA_Array::kDimsFieldNumber;
constexpr int kData = VELTRA_Array::kDataFieldNumber;
constexpr int kElements = VELTRA_Array::kElementsFieldNumber;
constexpr int kFieldNames = VELTRA_Array::kFieldNamesFieldNumber;
constexpr int kStringUnits = VELTRA_Array::kStringUnitsFieldNumber;
constexpr int kStringLengths = VELTRA_Array::kStringLengthsFieldNumber;
constexpr int kClassName = VELTRA_Array::kClassNameFieldNumber;
constexpr int kFirstProps = VELTRA_Array::kFirstPropertiesFieldNumber;
constexpr int kSecondProps = VELTRA_Array::kSecondPropertiesFieldNumber;
constexpr int kObjects = VELTRA_Array::kObjectsFieldNumber;
constexpr int kExternalDims = VELTRA_Array::kExternalDimsFieldNumber;
constexpr int kHandles = VELTRA_Array::kHandlesFieldNumber;
constexpr int kEnumNames = VELTRA_Array::kEnumNamesFieldNumber;
constexpr int kSparseRows = VELTRA_Array::kSparseRowsFieldNumber;
constexpr int kSparseCols = VELTRA_Array::kSparseColsFieldNumber;
constexpr int kNotUniform = VELTRA_Array::kNotUniformFieldNumber;

constexpr int kObjClass = VELTRA_ValueObject::kClassNameFieldNumber;
constexpr int kObjProps = VELTRA_ValueObject::kPropertiesFieldNumber;
constexpr int kObjFirst = VELTRA_ValueObject::kFirstPropertiesFieldNumber;
constexpr int kObjSecond = VELTRA_ValueObject::kSecondPropertiesFieldNumber;
constexpr int kPropName = VELTRA_Property::kNameFieldNumber;
constexpr int kPropValue = VELTRA_Property::kValueFieldNumber;
constexpr int kHandleClass = VELTRA_Handle::kClassNameFieldNumber;
constexpr int kHandleId = VELTRA_Handle::kIdFieldNumber;

constexpr int kNargout = VELTRA_Params::kNargoutFieldNumber;
constexpr int kRhs = VELTRA_Params::kRhsFieldNumber;
constexpr int kLhs = VELTRA_Result::kLhsFieldNumber;
constexpr int kError = VELTRA_Result::kErrorFieldNumber;
constexpr int kErrMessage = VELTRA_Error::kMessageFieldNumber;
constexpr int kErrIdentifier = VELTRA_Error::kIdentifierFieldNumber;
constexpr int kErrStack = VELTRA_Error::kStackFieldNumber;
constexpr int kFrameFile = VELTRA_StackFrame::kFileFieldNumber;
constexpr int kFrameName = VELTRA_StackFrame::kNameFieldNumber;
constexpr int kFrameLine = VELTRA_StackFrame::kLineFieldNumber;

// An array's head as every writer lays it out: the type first, then two to kMaxHeadDims dimensions packed.
constexpr std::size_t kMaxHeadDims = 8;
struct Head {
    ArrayType type = ArrayType::UNKNOWN;
    std::uint64_t dims[kMaxHeadDims] = {};
    std::size_t ndims = 0;
};
// Reads the head from `r` on; false for any other start (the general reader then decides what it is).
inline bool readHead(wire::Reader& r, Head& h) {
    int f;
    wire::WireType wt;
    std::uint64_t type;
    if (!r.tag(f, wt) || f != kType || wt != wire::kVarint || !r.varint(type) ||
        type > static_cast<std::uint64_t>(kMaxArrayType))
        return false;
    h.type = static_cast<ArrayType>(type);
    wire::Span packed;
    if (!r.tag(f, wt) || f != kDims || wt != wire::kLen || !r.len(packed)) return false;
    h.ndims = 0;
    for (wire::Reader d(packed); !d.done(); ++h.ndims)
        if (h.ndims == kMaxHeadDims || !d.varint(h.dims[h.ndims])) return false;
    return h.ndims >= 2;
}

}  // namespace foundation::veltradata::protobuf::field
