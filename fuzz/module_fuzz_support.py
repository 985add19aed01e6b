"""What the atheris harnesses over py_pb (fuzz/fuzz_module_*.py) share: the outcomes reading a result may
have."""

import zoneinfo

import py_pb

# An unreadable result message is reported on standard error and the function returns NULL with no exception
# set; Python turns that into exactly this SystemError. Any other SystemError is a finding.
UNREADABLE = "<built-in function serialized_str_to_py> returned NULL without setting an exception"

# What reading a result message may raise besides the SystemError above: kinds and shapes Python has no value
# for (TypeError), values refused (ValueError), text that UTF-16 does not carry (a lone surrogate,
# UnicodeDecodeError, a ValueError).
# What an engine datetime or duration may meet on its way into Python: datetime's range checks, and zone names
# zoneinfo does not know.
READ_ERRORS = (TypeError, ValueError, OverflowError, zoneinfo.ZoneInfoNotFoundError)


class Unexpected(AssertionError):
    pass


def read(data):
    """serialized_str_to_py(data), or None when it refuses the message in one of the allowed ways. Anything it
    returns must be the outputs (a list) or the engine's error (a dict; an absent identifier is an empty
    array)."""
    try:
        out = py_pb.serialized_str_to_py(data)
    except READ_ERRORS:
        return None
    except SystemError as e:
        if str(e) != UNREADABLE:
            raise
        return None
    if isinstance(out, dict):
        if list(out) != ["message", "identifier", "stack_as_str"] or not isinstance(out["message"], str) \
                or not isinstance(out["stack_as_str"], str):
            raise Unexpected(f"error result of unexpected form: {out!r:.500}")
    elif not isinstance(out, list):
        raise Unexpected(f"serialized_str_to_py returned {type(out).__name__}")
    return out
