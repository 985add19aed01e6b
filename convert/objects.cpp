#include "convert/objects.h"

#include <string>

#include "convert/datetime.h"
#include "convert/dictionary.h"
#include "convert/duration.h"
#include "envelope/engine_names.h"
#include "tables/table_to_dataframe.h"
#include "types/object.h"

namespace PythonVeltraDataArray::detail {

namespace engine = foundation::veltradata::engine;

PyObject* VeltraObjectToPyObject::doConvert(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT) return types::wrapObjectArray(a);
    const std::string cls =
        foundation::veltradata::ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
    if (cls == engine::datetime::kClass) return datetimeToPython(a);
    if (cls == engine::duration::kClass) return durationToPython(a);
    if (cls == engine::dictionary::kClass) return dictionaryToPython(a);
    if (cls == engine::table::kClass || cls == engine::timetable::kClass)
        return tableToPython(a, cls == engine::timetable::kClass);
    return types::wrapObjectArray(a);
}

std::optional<Array> PyObjectToObject::doConvert(PyObject* obj, const ConversionState&) {
    return types::objectArray(obj);
}

}  // namespace PythonVeltraDataArray::detail
