// libinit.h: start-up of the diagnostic utilities.
#pragma once

extern "C" {
// Learns the CPU clock rate, derives from it the rate of the cycle conversions, and starts allocation tracing, which
// the C library leaves off unless MALLOC_TRACE names a file. In this order; must run before any driver waits.
// Does not return when the clock rate cannot be read (see _init_ptu).
void libinit();
}
