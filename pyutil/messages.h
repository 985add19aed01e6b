// Messages that more than one file reports, held once so that they cannot drift apart.
#pragma once

namespace PythonVeltraDataArray::pyutil {

inline constexpr char kCapsuleIsNull[] = "capsule is null";
inline constexpr char kNullObject[] = "passing null Python object pointer to VELTRA not supported";
inline constexpr char kSparseToPython[] = "conversion of VELTRA sparse array to Python not supported";

}  // namespace PythonVeltraDataArray::pyutil
