#include "convert/objects.h"

#include <string>

#include "convert/datetime.h"
#include "convert/dictionary.h"
#include "convert/duration.h"
#include "tables/table_to_dataframe.h"
#include "types/object.h"

namespace PythonVeltraDataArray::detail {

PyObject* VeltraObjectToPyObject::doConvert(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT) return types::wrapObjectArray(a);
    const std::string cls =
        foundation::veltradata::ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
    if (cls == "datetime") return datetimeToPython(a);
    if (cls == "duration") return durationToPython(a);
    if (cls == "dictionary") return dictionaryToPython(a);
    if (cls == "table" || cls == "timetable") return tableToPython(a, cls == "timetable");
    return types::wrapObjectArray(a);
}

std::optional<Array> PyObjectToObject::doConvert(PyObject* obj, const ConversionState&) {
    return types::objectArray(obj);
}

}  // namespace PythonVeltraDataArray::detail
