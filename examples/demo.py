"""A call's round trip through py_pb.

1. Build the inputs of a realistic call in Python.
2. Turn them into a parameters message with py_pb.py_to_serialized_str.
3. Look inside that message with the message inspector (veltra.inspect), independently of py_pb.
4. Answer it with the loopback (a result whose outputs are the call's inputs), as the engine would answer.
5. Convert the result back with py_pb.serialized_str_to_py and print the Python values.
6. Show how an engine error comes back.

Run it with ./scripts/demo.sh (sets everything up first) or .venv/bin/python examples/demo.py.
"""

import datetime
import zoneinfo

import numpy as np
import pandas as pd

import py_pb
from veltra.inspect import inspect, render
from veltra.loopback import loopback
from veltra.wire import messages

def show_python(value, label, indent="  "):
    """Print a converted value with its Python type; numeric package arrays also as numpy sees them."""
    kind = type(value).__module__ + "." + type(value).__name__ if type(value).__module__ != "builtins" \
        else type(value).__name__
    if isinstance(value, dict):
        print(f"{indent}{label}: dict")
        for k, v in value.items():
            show_python(v, repr(k), indent + "    ")
    elif isinstance(value, list) and any(isinstance(v, (list, dict)) for v in value):
        print(f"{indent}{label}: list of {len(value)}")
        for i, v in enumerate(value):
            show_python(v, f"[{i}]", indent + "    ")
    elif isinstance(value, datetime.datetime):
        print(f"{indent}{label}: {kind} {value.isoformat()} in {value.tzinfo or 'no zone'}")
    elif isinstance(value, datetime.timedelta):
        print(f"{indent}{label}: {kind} {value} ({value.total_seconds() * 1000:g} ms)")
    elif isinstance(value, pd.DataFrame):
        print(f"{indent}{label}: {kind} {value.shape[0]} rows, index {value.index.name!r}:")
        for row in value.to_string().splitlines():
            print(f"{indent}        {row}")
    elif type(value).__module__ == "veltra":
        view = np.asarray(value)
        rows = np.array2string(view).splitlines()
        print(f"{indent}{label}: {kind} of size {value.size}; numpy.asarray gives {view.dtype} {view.shape}:")
        for row in rows:
            print(f"{indent}        {row}")
    else:
        print(f"{indent}{label}: {kind:5} {value!r}")


def main():
    print("== 1. The inputs of a call: fit a model to some measurements")
    measurements = np.array([[0.0, 1.0, 2.0, 3.0],
                             [1.1, 2.9, 5.2, 7.1]])
    inputs = (
        "fit",                                   # the model's name
        3,                                       # polynomial degree
        0.25,                                    # regularisation
        {"method": "lm", "tolerance": 1e-8,      # a nested options dict
         "weights": [1, 2, 3.5],
         "limits": {"max_iter": 200, "verbose": True}},
        b"\x00\x01\xfe\xff",                     # an opaque blob
        measurements,                            # a 2x4 numpy matrix
        datetime.datetime(2024, 3, 14, 9, 30, 15, 250000,          # when they were taken, in a named zone
                          tzinfo=zoneinfo.ZoneInfo("Europe/Paris")),
        datetime.timedelta(minutes=1, seconds=30.5),                # how long the fit may run
        pd.DataFrame({"temp": [21.5, 22.0, None], "sensor": ["a", "b", None],   # readings: a timetable
                      "state": pd.Categorical(["ok", "ok", "hot"])},
                     index=pd.date_range("2024-03-14 09:30", periods=3, freq="min", tz="Europe/Paris",
                                         name="when")),
    )
    for i, value in enumerate(inputs):
        print(f"  [{i}] {value!r}".replace("\n", "\n      "))

    print()
    params = py_pb.py_to_serialized_str(inputs, nargout=len(inputs))
    print(f"== 2. py_to_serialized_str -> a parameters message of {len(params)} bytes")
    print("   read back from the wire by the message inspector (python -m veltra.inspect), independently of py_pb:")
    print("  " + render(inspect(params)).replace("\n", "\n  "))

    print()
    result = loopback(params)
    print(f"== 3. The loopback answers with a result message of {len(result)} bytes whose outputs are the inputs")

    print()
    outputs = py_pb.serialized_str_to_py(result)
    print(f"== 4. serialized_str_to_py -> a list of {len(outputs)} outputs")
    for i, value in enumerate(outputs):
        show_python(value, f"[{i}]")
    back = np.asarray(outputs[5])
    print(f"  The matrix came back {'unchanged' if np.array_equal(back, measurements) else 'CHANGED'}; "
          f"the bytes read {bytes(np.asarray(outputs[4])).hex(' ')}.")
    when, budget = outputs[6], outputs[7]
    same = when == inputs[6] and when.tzinfo == inputs[6].tzinfo and budget == inputs[7]
    print(f"  The timestamp ({when.astimezone(datetime.timezone.utc):%H:%M:%S} UTC) and the duration came back "
          f"{'unchanged, zone included' if same else 'CHANGED'}.")
    print(f"  The readings came back as {'an equal' if outputs[8].equals(inputs[8]) else 'a CHANGED'} DataFrame, "
          f"their row times in {outputs[8].index.tz}.")

    print()
    print("== 5. An engine error is not raised: it comes back as a dict")
    answer = messages().VELTRA_Result()
    answer.error.message = "Polynomial degree must be less than the number of points."
    answer.error.identifier = "fit:degreeTooHigh"
    for file, name, line in [("fit_model.src", "fit_model", 42), ("run_study.src", "run_study", 7)]:
        answer.error.stack.add(file=file, name=name, line=line)
    error = py_pb.serialized_str_to_py(answer.SerializeToString())
    for key, value in error.items():
        if key == "stack_as_str":
            print(f"  {key}:")
            for line in value.splitlines():
                print(f"      {line}")
        else:
            print(f"  {key}: {value!r}")

    print()
    print(f"Done: {len(inputs)} values went out and came back (veltra package types: "
          f"{', '.join(sorted({type(v).__name__ for v in outputs if type(v).__module__ == 'veltra'}))}).")


if __name__ == "__main__":
    main()
