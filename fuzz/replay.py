"""Replays an atheris harness the same way every time: each input of its committed corpus, then RUNS inputs made
from them by byte mutations drawn from a seeded generator. No coverage steers the mutations, so the same commit
runs the same inputs and gets the same verdict on any machine; steering by coverage is what campaigns
(scripts/fuzz_campaign.sh) are for, and what they find comes back here through the corpus.

    python fuzz/replay.py HARNESS.py RUNS SEED ARTIFACTS_PREFIX CORPUS_DIR...

An exception out of the harness's TestOneInput is a finding: the input is written to ARTIFACTS_PREFIX +
crash-<sha1> and the replay stops with status 1. A crash or a sanitizer report stops the process; the input it
was running is in ARTIFACTS_PREFIX + current.
"""

import hashlib
import importlib.util
import os
import random
import sys
import traceback

MAX_LEN = 4096
INTERESTING = [0, 1, 0x7F, 0x80, 0xFF, 0x100, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF,
               2**63 - 1, 2**63, 2**64 - 1]


def mutate(rng, data, corpus):
    """One to five edits of the kinds libFuzzer makes: erase, insert, repeat, set, flip, copy, splice, and write an
    integer at a boundary."""
    data = bytearray(data)
    for _ in range(rng.randint(1, 5)):
        n = len(data)
        i = rng.randrange(n + 1)
        op = rng.randrange(9)
        if op == 0 and n > 1:
            del data[i:i + rng.randint(1, 8)]
        elif op == 1:
            data[i:i] = bytes(rng.randrange(256) for _ in range(rng.randint(1, 4)))
        elif op == 2:
            data[i:i] = bytes([rng.randrange(256)]) * rng.randint(2, 32)
        elif op == 3 and n:
            data[i % n] = rng.randrange(256)
        elif op == 4 and n:
            data[i % n] ^= 1 << rng.randrange(8)
        elif op == 5 and n:
            start = rng.randrange(n)
            part = data[start:start + rng.randint(1, 16)]
            data[i:i + (len(part) if rng.randrange(2) else 0)] = part
        elif op == 6:
            other = rng.choice(corpus)
            data = data[:i] + other[rng.randrange(len(other) + 1):]
        elif op == 7:
            width = rng.choice([1, 2, 4, 8])
            value = rng.choice(INTERESTING) & ((1 << 8 * width) - 1)
            data[i:i + width] = value.to_bytes(width, rng.choice(["little", "big"]))
        elif op == 8 and n > 1:
            start = rng.randrange(n)
            part = data[start:start + rng.randint(2, 8)]
            rng.shuffle(part)
            data[start:start + len(part)] = part
    return bytes(data[:MAX_LEN])


def load_corpus(dirs):
    corpus = []
    for d in dirs:
        for name in sorted(os.listdir(d)):
            with open(os.path.join(d, name), "rb") as f:
                corpus.append(f.read())
    return corpus


def main():
    harness, runs, seed, prefix, *dirs = sys.argv[1:]
    sys.path.insert(0, os.path.dirname(os.path.abspath(harness)))
    spec = importlib.util.spec_from_file_location("harness", harness)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)

    corpus = load_corpus(dirs) or [b""]
    rng = random.Random(int(seed))
    current = os.open(prefix + "current", os.O_WRONLY | os.O_CREAT, 0o644)
    digest = hashlib.sha1()
    inputs = corpus + [None] * int(runs)
    for k, data in enumerate(inputs):
        if data is None:
            data = mutate(rng, rng.choice(corpus), corpus)
        digest.update(len(data).to_bytes(4, "little") + data)
        os.ftruncate(current, 0)
        os.pwrite(current, data, 0)
        try:
            module.TestOneInput(data)
        except Exception:
            traceback.print_exc()
            path = prefix + "crash-" + hashlib.sha1(data).hexdigest()
            with open(path, "wb") as f:
                f.write(data)
            print(f"input {k} raised; it is in {path}")
            return 1
    print(f"{len(corpus)} corpus inputs and {runs} mutations (seed {seed}, inputs digest "
          f"{digest.hexdigest()[:16]}): no findings")
    return 0


if __name__ == "__main__":
    sys.exit(main())
