#include "convert/budget.h"

#include <string>

#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::detail {

namespace {

thread_local CallBudget* t_current = nullptr;

constexpr std::uint64_t kSignalEvery = 4096;
// Below this many references a container cannot occur twice in the arguments: one is its parent's slot, one
// the hold of the converter that is reading it.
constexpr Py_ssize_t kMaybeShared = 3;

pyutil::Failure failTooLarge(std::uint64_t bytes) {
    return fail(PyExc_ValueError, "the arguments need at least " + std::to_string(bytes) + " bytes, more than the " +
                                      std::to_string(CallBudget::kMaxMessageBytes) +
                                      " bytes (2 GiB) a parameters message can hold");
}

}  // namespace

CallBudget::CallBudget() noexcept : outer_(t_current) { t_current = this; }
CallBudget::~CallBudget() { t_current = outer_; }
CallBudget* CallBudget::current() noexcept { return t_current; }

bool CallBudget::charge(Counts more) {
    const std::uint64_t before = counts_.values;
    counts_.values += more.values;
    counts_.bytes += more.bytes;
    if (counts_.values > kMaxValues) {
        return fail(PyExc_ValueError, "the arguments hold more than " + std::to_string(kMaxValues) +
                                          " nested values (elements of lists, tuples, sets and dicts at any depth); "
                                          "send large collections of numbers as numpy arrays");
    }
    if (counts_.bytes > kMaxMessageBytes) return failTooLarge(counts_.bytes);
    if (before / kSignalEvery != counts_.values / kSignalEvery && PyErr_CheckSignals() != 0) return failed();
    return true;
}

bool CallBudget::chargeValue() { return charge({1, 0}); }
bool CallBudget::chargeBytes(std::uint64_t bytes) { return charge({0, bytes}); }

bool CallBudget::wouldFit(std::uint64_t bytes) const {
    if (bytes <= kMaxMessageBytes - counts_.bytes) return true;
    const std::uint64_t total = bytes > UINT64_MAX - counts_.bytes ? UINT64_MAX : counts_.bytes + bytes;
    return failTooLarge(total);
}

std::optional<Array> CallBudget::reuse(PyObject* container) {
    if (Py_REFCNT(container) < kMaybeShared) return std::nullopt;
    auto it = shared_.find(container);
    if (it == shared_.end()) return std::nullopt;
    if (!charge(it->second.counts)) return failed();
    return it->second.array;
}

void CallBudget::remember(PyObject* container, const Array& converted, Counts since) {
    if (Py_REFCNT(container) < kMaybeShared) return;
    const Counts counts{counts_.values - since.values, counts_.bytes - since.bytes};
    shared_.emplace(container, Shared{converted, counts, Ref::borrow(container)});
}

bool chargeValue() { return t_current ? t_current->chargeValue() : true; }

bool chargePayload(const Array& a) {
    if (!t_current) return true;
    const ArrayType type = a.getType();
    if (!foundation::veltradata::isRawBufferType(type)) return true;
    return t_current->chargeBytes(a.getNumberOfElements() * foundation::veltradata::elementSize(type));
}

bool wouldFit(std::uint64_t bytes) { return t_current ? t_current->wouldFit(bytes) : true; }

std::optional<Array> reuseShared(PyObject* container) {
    return t_current ? t_current->reuse(container) : std::nullopt;
}

void rememberShared(PyObject* container, const Array& converted, CallBudget::Counts since) {
    if (t_current) t_current->remember(container, converted, since);
}

bool pollSignals() {
    static thread_local std::uint64_t calls = 0;
    return ++calls % kSignalEvery != 0 || PyErr_CheckSignals() == 0;
}

CallBudget::Counts budgetCounts() { return t_current ? t_current->counts() : CallBudget::Counts{}; }

}  // namespace PythonVeltraDataArray::detail
