#pragma once
// Logging for fuzz targets. Every subsystem logs at every level, so that the messages built
// from fuzzed data are formatted too, but into a logger that prints nothing; FUZZ_LOG=1 in
// the environment prints them on stderr instead, for looking into one input.
void fuzz_quiet_logs();
