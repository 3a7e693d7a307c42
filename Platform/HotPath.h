// SORVA_HOT marks a function that the audio thread runs every cycle. The
// compiler places all of them side by side in one stretch of the program
// text (and optimizes them for speed). Between two cycles the audio thread
// sleeps for the whole quantum, and by the next one the code it runs has
// left the caches and the TLB; every distinct code page a cycle touches then
// costs a page walk and a memory read (about 0.4 µs each on a virtual
// machine, measured), far more than the few instructions run on it. Packed
// together, the render path spans a few pages instead of a dozen.
#pragma once

#if defined(__GNUC__)
#define SORVA_HOT __attribute__((hot))
#else
#define SORVA_HOT
#endif
