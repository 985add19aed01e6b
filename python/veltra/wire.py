"""The call messages as plain protobuf classes, for reading and writing messages independently of py_pb.

The classes are generated on first use from the schema files installed with the package (grpcio-tools
carries a protoc that matches the protobuf runtime), so nothing generated is kept in the source tree.
"""

import atexit
import functools
import importlib
import shutil
import sys
import tempfile
import types
from pathlib import Path

PROTO_DIR = Path(__file__).with_name("proto")


@functools.lru_cache(maxsize=None)
def messages() -> types.SimpleNamespace:
    """A namespace with VELTRA_Array, VELTRA_Params, VELTRA_Result, VELTRA_Error and VELTRA_StackFrame."""
    from grpc_tools import protoc  # type: ignore[import-untyped]

    protos = sorted(str(p) for p in PROTO_DIR.glob("*.proto"))
    if not protos:
        raise RuntimeError(f"no schema files in {PROTO_DIR}")
    out = tempfile.mkdtemp(prefix="veltra_pb2_")
    atexit.register(shutil.rmtree, out, True)
    if protoc.main(["protoc", f"-I{PROTO_DIR}", f"--python_out={out}", *protos]) != 0:
        raise RuntimeError("protoc failed on " + ", ".join(protos))
    # The generated modules import each other by their top-level names.
    sys.path.insert(0, out)
    try:
        array_pb2 = importlib.import_module("veltra_array_pb2")
        common_pb2 = importlib.import_module("veltra_common_pb2")
    finally:
        sys.path.remove(out)
    return types.SimpleNamespace(
        VELTRA_Array=array_pb2.VELTRA_Array,
        VELTRA_Params=common_pb2.VELTRA_Params,
        VELTRA_Result=common_pb2.VELTRA_Result,
        VELTRA_Error=common_pb2.VELTRA_Error,
        VELTRA_StackFrame=common_pb2.VELTRA_StackFrame,
    )
