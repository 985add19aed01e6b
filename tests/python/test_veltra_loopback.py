"""The loopback helper users test with: checked against the protobuf peer, not against py_pb."""

import pytest

from veltra.loopback import error_result, input_arrays, loopback
from veltra.wire import messages


def peer_params(*arrays, nargout=1):
    m = messages()
    p = m.VELTRA_Params(nargout=nargout)
    for kind, dims, data in arrays:
        p.rhs.add(type=kind, dims=dims, data=data)
    return p


@pytest.mark.parametrize("count", [0, 1, 3])
@pytest.mark.parametrize("nargout", [0, 1, 5, -2])
def test_outputs_are_the_inputs(count, nargout):
    p = peer_params(*[(4, [1, 1], bytes([k]) * 8) for k in range(count)], nargout=nargout)
    r = messages().VELTRA_Result()
    r.ParseFromString(loopback(p.SerializeToString()))
    assert list(r.lhs) == list(p.rhs) and not r.HasField("error")
    assert input_arrays(p.SerializeToString()) == [a.SerializeToString() for a in p.rhs]


def test_large_payload_and_unknown_fields():
    p = peer_params((4, [1, 20000], b"\x01" * 160000))
    data = p.SerializeToString() + b"\x18\x07" + b"\x25\x00\x00\x00\x00" + b"\x29" + b"\x00" * 8  # fields 3, 4, 5
    r = messages().VELTRA_Result()
    r.ParseFromString(loopback(data))
    assert list(r.lhs) == list(p.rhs)


@pytest.mark.parametrize("data", [b"\x12\x05\x08", b"\x12", b"\x08\xff", b"\x13"])
def test_malformed_parameters(data):
    with pytest.raises(ValueError):
        loopback(data)


def test_error_result_with_and_without_identifier():
    r = messages().VELTRA_Result()
    r.ParseFromString(error_result("m"))
    assert r.error.message == "m" and not r.error.HasField("identifier") and len(r.error.stack) == 0
    r.ParseFromString(error_result("\u00e9", "", [("f", "n", -3)]))
    assert (r.error.message, r.error.identifier) == ("\u00e9", "")
    assert [(s.file, s.name, s.line) for s in r.error.stack] == [("f", "n", -3)]
