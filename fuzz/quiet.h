// Keeps the fuzz targets off the system log: the library logs a line per action, and a fuzzer
// makes millions of actions.
#pragma once

#include <syslog.h>

inline void brakwell_fuzz_quiet() { setlogmask(LOG_MASK(LOG_EMERG)); }
