// ptu_velto_or.h: the CPU clock rate, as the operating system describes the processor.
#pragma once

extern "C" {
// Fills ptu_parms from the first line of /proc/cpuinfo that begins with "cpu MHz"; the first listed processor stands
// for all. The rate is read in single precision.
//   cpu_hz   the rate times 1000000, truncated. All ones for a rate of 4294.967296 MHz or more. Not-a-number and
//            rates below -2^63 Hz give 0; other negative rates the low 32 bits of the two's complement.
//   cpu_mhz  the rate itself, unchecked
// Does not return when the file cannot be opened or has no such line (each with a line on standard output), or when
// the rate is 0: a standard assertion fails.
void _init_ptu();
}
