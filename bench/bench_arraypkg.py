"""Typed array package: the capsule's reordering copy and the zero-copy numpy view, as ratios to numpy peers
measured in the same run.

    .venv/bin/python bench/bench_arraypkg.py [--repeat N]

Rows:
  C-ordered 2-D float64 (64 MiB) through capsule entries 2 and 1 (and 0, constant time) against
      numpy.asfortranarray of the same array                                  target <= 1.3x
  the same data Fortran-ordered through the capsule against a plain copy (ndarray.copy(order="F"))
                                                                              target <= 1.2x
  the same for the other element sizes and for byte-swapped sources (informative)
  numpy.asarray of a returned package array, 64 MiB against 1 KiB              target ~1x (no copy)
"""

import argparse
import gc
import time

import numpy as np

import veltramultidimarrayforpython as vpkg

MiB = 1 << 20


def best_of(fn, repeat, number=1):
    """Smallest time per call over `repeat` rounds of `number` calls."""
    best = float("inf")
    for _ in range(repeat):
        gc.collect()
        t0 = time.perf_counter()
        for _ in range(number):
            fn()
        best = min(best, (time.perf_counter() - t0) / number)
    return best


def via_capsule(a):
    # Entry 2 (buffer handle), entry 1 (the one reordering copy), entry 3, then entry 0 (wrap, no copy).
    return lambda: vpkg._capi_roundtrip(a)


def row(label, ours, peer, peer_name, target=None):
    ratio = ours / peer
    verdict = "" if target is None else ("  ok" if ratio <= target else f"  OVER {target}x")
    print(f"{label:<44} {ours * 1e3:9.2f} ms  {peer_name:<22} {peer * 1e3:9.2f} ms  {ratio:5.2f}x{verdict}")
    return ratio


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--repeat", type=int, default=7)
    args = parser.parse_args()
    r = args.repeat

    rows, cols = 2048, 4096  # 64 MiB of float64
    c_order = np.random.default_rng(0).standard_normal((rows, cols))
    f_order = np.asfortranarray(c_order)
    assert c_order.nbytes == 64 * MiB

    # Same elements either way, and what comes back is the Fortran view numpy would make.
    np.testing.assert_array_equal(np.asarray(vpkg._capi_roundtrip(c_order)), c_order)

    print(f"{'case':<44} {'capsule':>12}  {'peer':<22} {'':>12}  ratio")
    row("float64 C-ordered 2-D 64 MiB", best_of(via_capsule(c_order), r),
        best_of(lambda: np.asfortranarray(c_order), r), "numpy.asfortranarray", 1.3)
    row("float64 Fortran-ordered 2-D 64 MiB", best_of(via_capsule(f_order), r),
        best_of(lambda: f_order.copy(order="F"), r), "ndarray.copy(order=F)", 1.2)

    for dtype in ["int8", "int16", "float32", "complex128", ">f8", ">c16"]:
        n = 64 * MiB // np.dtype(dtype).itemsize
        a = np.arange(n).astype(dtype).reshape(rows, n // rows)
        row(f"{np.dtype(dtype).str} C-ordered 2-D 64 MiB", best_of(via_capsule(a), r),
            best_of(lambda: np.asfortranarray(a), r), "numpy.asfortranarray")
    strided = c_order[:, ::2]
    row("float64 every other column (32 MiB)", best_of(via_capsule(strided), r),
        best_of(lambda: np.asfortranarray(strided), r), "numpy.asfortranarray")
    cube = c_order.reshape(128, 128, 512)
    row("float64 C-ordered 3-D 64 MiB", best_of(via_capsule(cube), r),
        best_of(lambda: np.asfortranarray(cube), r), "numpy.asfortranarray")

    small = vpkg._capi_roundtrip(np.arange(128.0).reshape(8, 16))  # 1 KiB
    big = vpkg._capi_roundtrip(c_order)
    t_small = best_of(lambda: np.asarray(small), r, number=20000)
    t_big = best_of(lambda: np.asarray(big), r, number=20000)
    print(f"{'numpy.asarray of a returned array':<44} {t_big * 1e9:9.0f} ns  {'(1 KiB array)':<22} "
          f"{t_small * 1e9:9.0f} ns  {t_big / t_small:5.2f}x  (64 MiB / 1 KiB; ~1x means no copy)")
    assert np.shares_memory(np.asarray(big), np.asarray(big))


if __name__ == "__main__":
    main()
