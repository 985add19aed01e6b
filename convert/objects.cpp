#include "convert/objects.h"

#include <string>
#include <unordered_map>

#include "convert/datetime.h"
#include "convert/duration.h"
#include "convert/registration.h"
#include "envelope/engine_names.h"

namespace PythonVeltraDataArray::detail {

namespace engine = foundation::veltradata::engine;

namespace {

// Filled at start-up, read afterwards; never freed, as objects may still be converted while the process ends.
struct ObjectConverters {
    // The engine's time classes are convert/'s own; the rest come from module/ at start-up.
    std::unordered_map<std::string, ObjectToPython> byClass{{engine::datetime::kClass, datetimeToPython},
                                                            {engine::duration::kClass, durationToPython}};
    ObjectToPython other = nullptr;
};

ObjectConverters& objectConverters() {
    static ObjectConverters* converters = new ObjectConverters;
    return *converters;
}

PyObject* otherObjectToPython(const Array& a) {
    const ObjectToPython other = objectConverters().other;
    if (!other) return fail(PyExc_RuntimeError, "internal error: no converter registered for VELTRA objects");
    return other(a);
}

}  // namespace

void registerClassToPython(const std::string& className, ObjectToPython toPython) {
    objectConverters().byClass.emplace(className, toPython);
}

void registerOtherObjectsToPython(ObjectToPython toPython) {
    ObjectConverters& converters = objectConverters();
    if (!converters.other) converters.other = toPython;
}

PyObject* VeltraObjectToPyObject::doConvert(const Array& a) {
    if (a.getType() != ArrayType::VALUE_OBJECT) return otherObjectToPython(a);
    const std::string cls =
        foundation::veltradata::ValueObjectArray(a).getClassInfo().getClassIdentifier().getClassName();
    const ObjectConverters& converters = objectConverters();
    const auto registered = converters.byClass.find(cls);
    if (registered != converters.byClass.end()) return registered->second(a);
    return otherObjectToPython(a);
}

}  // namespace PythonVeltraDataArray::detail
