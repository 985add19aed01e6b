#include "convert/budget.h"

#include <string>

namespace PythonVeltraDataArray::detail {

namespace {

// Below this many references a container cannot occur twice in the arguments: one is its parent's slot, one
// the hold of the converter that is reading it.
constexpr Py_ssize_t kMaybeShared = 3;
// Containers with fewer values below them are cheaper to convert again than to remember: a shared structure
// still costs no more than this much work per level.
constexpr std::uint64_t kWorthRemembering = 64;

pyutil::Failure failTooLarge(std::uint64_t bytes) {
    return fail(PyExc_ValueError, "the arguments need at least " + std::to_string(bytes) + " bytes, more than the " +
                                      std::to_string(CallBudget::kMaxMessageBytes) +
                                      " bytes (2 GiB) a parameters message can hold");
}

}  // namespace

bool CallBudget::checkValues() {
    if (counts_.values > kMaxValues) {
        return fail(PyExc_ValueError, "the arguments hold more than " + std::to_string(kMaxValues) +
                                          " nested values (elements of lists, tuples, sets and dicts at any depth); "
                                          "send large collections of numbers as numpy arrays");
    }
    return PyErr_CheckSignals() == 0;
}

bool CallBudget::chargeBytes(std::uint64_t bytes) {
    if (bytes > kMaxMessageBytes - counts_.bytes)
        return failTooLarge(bytes > UINT64_MAX - counts_.bytes ? UINT64_MAX : counts_.bytes + bytes);
    counts_.bytes += bytes;
    return true;
}

std::optional<Array> CallBudget::reuse(PyObject* container) {
    if (shared_.empty() || Py_REFCNT(container) < kMaybeShared) return std::nullopt;
    auto it = shared_.find(container);
    if (it == shared_.end()) return std::nullopt;
    const Counts more = it->second.counts;
    if (!chargeBytes(more.bytes)) return failed();
    const std::uint64_t before = counts_.values;
    counts_.values += more.values;
    if ((counts_.values > kMaxValues || before / kSignalEvery != counts_.values / kSignalEvery) && !checkValues())
        return failed();
    return it->second.array;
}

void CallBudget::remember(PyObject* container, const Array& converted, Counts since) {
    const Counts counts{counts_.values - since.values, counts_.bytes - since.bytes};
    if (counts.values < kWorthRemembering || Py_REFCNT(container) < kMaybeShared) return;
    shared_.emplace(container, Shared{converted, counts, Ref::borrow(container)});
}

bool CallBudget::firstMeeting(PyObject* container) {
    return Py_REFCNT(container) < kMaybeShared || met_.insert(container).second;
}

bool pollSignals() {
    static std::uint64_t calls = 0;  // under the interpreter lock, like every caller
    return ++calls % 4096 != 0 || PyErr_CheckSignals() == 0;
}

}  // namespace PythonVeltraDataArray::detail
