#!/usr/bin/env python3
# Reads raw interleaved f32 stereo from stdin (a capture of a sink's monitor)
# and, each time sound starts after silence (peak above -40 dBFS), appends the
# wall-clock time in ms to the file named by argv[1]. Used by the drills to
# time when equalized sound reaches a sink.
import os, struct, sys, time
out = sys.argv[1]
threshold = 0.01
quiet = True
stdin = sys.stdin.buffer
while True:
    block = stdin.read(4096)
    if not block:
        break
    n = len(block) // 4
    # values beyond 1.5 are not audio (a file header ahead of the samples)
    loud = any(threshold < abs(v) < 1.5 for v in struct.unpack(f"<{n}f", block[: n * 4]))
    if loud and quiet:
        with open(out, "a") as f:
            f.write(f"{time.time_ns() // 1000000}\n")
    quiet = not loud
