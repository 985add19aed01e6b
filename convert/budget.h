// What one py_to_serialized_str call may produce, counted while it converts, so that an argument that expands
// (a broadcast view of one element, a list that holds the same sub-list twice at every level) is refused as
// soon as it passes a limit, long before memory runs out:
//  - payload bytes: a message holds at most kMaxMessageBytes, and large payloads are checked before they are
//    copied;
//  - nested values (elements of lists, tuples, sets and dicts at any depth): at most kMaxValues, which bounds
//    the memory and the time a conversion takes.
// A container object met again in the same call is not converted again: its first conversion is shared, and
// its counts are charged once more, so shared sub-lists cost their size on the wire but not in work.
// Counting also checks for signals every few thousand values, so Ctrl-C interrupts a long conversion.
//
// The budget lives for the call (module/entry_points.cpp makes one); outside a call the free functions below
// do nothing.
#pragma once

#include <Python.h>

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "convert/converter.h"

namespace PythonVeltraDataArray::detail {

class CallBudget {
public:
    static constexpr std::uint64_t kMaxMessageBytes = 2147483647;  // 2 GiB - 1, protobuf's limit
    static constexpr std::uint64_t kMaxValues = std::uint64_t{1} << 22;

    CallBudget() noexcept;
    ~CallBudget();
    CallBudget(const CallBudget&) = delete;
    CallBudget& operator=(const CallBudget&) = delete;

    struct Counts {
        std::uint64_t values = 0, bytes = 0;
    };
    Counts counts() const noexcept { return counts_; }

    bool chargeValue();
    bool chargeBytes(std::uint64_t bytes);
    bool wouldFit(std::uint64_t bytes) const;
    std::optional<Array> reuse(PyObject* container);
    void remember(PyObject* container, const Array& converted, Counts since);

    static CallBudget* current() noexcept;

private:
    struct Shared {
        Array array;
        Counts counts;
        Ref hold;  // keeps the key's address from being reused by another object during the call
    };
    bool charge(Counts more);
    Counts counts_;
    std::unordered_map<PyObject*, Shared> shared_;
    CallBudget* outer_;
};

// One more value, checking for signals now and then. False with the error set (ValueError, KeyboardInterrupt).
bool chargeValue();
// Payload bytes of a converted value; false with ValueError set past the message limit.
bool chargePayload(const Array& a);
// Whether `bytes` more would still fit; false with ValueError set otherwise. Nothing is charged.
bool wouldFit(std::uint64_t bytes);
// The earlier conversion of a container met again (its counts charged again), or nothing. An empty result
// with an error set means the charge failed.
std::optional<Array> reuseShared(PyObject* container);
// Records a container's conversion for reuse; `since` are the counts taken when its conversion began.
void rememberShared(PyObject* container, const Array& converted, CallBudget::Counts since);
// The counts so far (zero outside a call).
CallBudget::Counts budgetCounts();

// For conversions out of the engine, which have no budget: checks for signals every few thousand calls.
// False with KeyboardInterrupt (or what the handler raised) set.
bool pollSignals();

}  // namespace PythonVeltraDataArray::detail
