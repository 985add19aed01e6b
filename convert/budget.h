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
// The module function makes one per call and hands it down in the ConversionState; a conversion without one
// (ConversionState::budget null) is not counted.
#pragma once

#include <Python.h>

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "convert/converter.h"
#include "envelope/serialization.h"

namespace PythonVeltraDataArray::detail {

class CallBudget {
public:
    static constexpr std::uint64_t kMaxMessageBytes = foundation::veltradata::protobuf::kMaxMessageBytes;
    static constexpr std::uint64_t kMaxValues = std::uint64_t{1} << 22;
    // Pending signals run their handlers once per this many values.
    static constexpr std::uint64_t kSignalEvery = 4096;

    struct Counts {
        std::uint64_t values = 0, bytes = 0;
    };
    Counts counts() const noexcept { return counts_; }

    // One more value. False with the error set: ValueError past the limit, or KeyboardInterrupt (or what a
    // signal handler raised).
    bool chargeValue() {
        ++counts_.values;
        return (counts_.values & (kSignalEvery - 1)) != 0 && counts_.values <= kMaxValues ? true : checkValues();
    }
    // Payload bytes about to be copied; false with ValueError set past the message limit. Charged where
    // payloads can be large (numeric arrays, bytes, text), before the copy; one-element values are bounded by
    // the value count, and the finished message is measured exactly anyway.
    bool chargeBytes(std::uint64_t bytes);

    // The earlier conversion of a container met again (its counts charged again), or nothing. An empty
    // result with an error set means the charge failed.
    std::optional<Array> reuse(PyObject* container);
    // Records a container's conversion for reuse; `since` are the counts taken when its conversion began.
    void remember(PyObject* container, const Array& converted, Counts since);
    // False for a container this call may have met before (a shared sub-list, a cycle), which then goes
    // through its converter: that converts a shared container once however often it occurs.
    bool firstMeeting(PyObject* container);

private:
    bool checkValues();

    struct Shared {
        Array array;
        Counts counts;
        Ref hold;  // keeps the key's address from going to another object during the call
    };
    Counts counts_;
    std::unordered_map<PyObject*, Shared> shared_;
    std::unordered_set<PyObject*> met_;
};

// For conversions out of the engine, which have no budget: checks for signals every few thousand calls.
// False with KeyboardInterrupt (or what the handler raised) set.
bool pollSignals();

}  // namespace PythonVeltraDataArray::detail
