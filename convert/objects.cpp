#include "convert/objects.h"

#include <string>

#include "convert/datetime.h"
#include "convert/duration.h"

namespace PythonVeltraDataArray::detail {

PyObject* VeltraObjectToPyObject::doConvert(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT)
        return fail(PyExc_TypeError, "conversion of VELTRA handle object references to Python not supported yet");
    const std::string cls =
        foundation::veltradata::ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
    if (cls == "datetime") return datetimeToPython(a);
    if (cls == "duration") return durationToPython(a);
    return fail(PyExc_TypeError, "conversion of VELTRA value object of class '" + cls + "' to Python not supported yet");
}

}  // namespace PythonVeltraDataArray::detail
