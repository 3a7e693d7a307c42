#!/usr/bin/env python3
# Reads raw interleaved f32 stereo at 48 kHz from stdin (a capture of a
# sink's monitor carrying a steady tone) and, when stdin closes, writes to the
# file named by argv[1] the longest run of silence in ms (every sample below
# -40 dBFS) after the first sound, and the number of such runs longer than
# 10 ms. The zero crossings of a tone last a sample or two, so any run of more
# than a few milliseconds is sound that stopped.
import struct, sys
threshold = 0.01
run = longest = gaps = 0
heard = False
stdin = sys.stdin.buffer
pending = b""
while True:
    block = stdin.read(8192)
    if not block:
        break
    block = pending + block
    n = len(block) // 8
    pending = block[n * 8:]
    values = struct.unpack(f"<{n * 2}f", block[: n * 8])
    for i in range(0, n * 2, 2):
        if abs(values[i]) < threshold and abs(values[i + 1]) < threshold:
            run += 1
        else:
            if heard and run > 480:
                gaps += 1
            if heard:
                longest = max(longest, run)
            heard = True
            run = 0
with open(sys.argv[1], "w") as f:
    f.write(f"{longest / 48:.0f} {gaps}\n")
