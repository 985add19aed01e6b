"""atheris harness: arbitrary bytes into py_pb.serialized_str_to_py.

A call may return the outputs or the engine's error, raise TypeError or ValueError, or report the message as
unreadable (the SystemError of module_fuzz_support.UNREADABLE); anything else, a crash or a sanitizer report
is a finding.

    python fuzz/fuzz_module_bytes.py -max_total_time=60 fuzz/corpus/fuzz_module_bytes
"""

import sys

import atheris

import module_fuzz_support as support


def TestOneInput(data):
    support.read(data)


if __name__ == "__main__":
    atheris.Setup(sys.argv, TestOneInput)
    atheris.Fuzz()
