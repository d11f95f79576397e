// The command line: the two-process start, the options parse, the lock and
// the dispatch to one action. Within kor only main includes this.
#pragma once

#include "base/options.h"

extern const char kor_usage_text[];

// Fills the record from defaults, the environment and argv[1..]. Returns 0
// when the run may go on, else the exit status (the message is logged).
// Reads nothing but its arguments and KOR_PRODUCT/KOR_PLATFORM.
[[nodiscard]] int kor_options_parse(kor_options* o, int argc, char** argv);

// The worker's run: parse, verbose dump, lock, one action, unlock.
[[nodiscard]] int kor_run(int argc, char** argv);

// The whole program: syslog, signals, fork, parent waits (main calls this).
[[nodiscard]] int kor_main(int argc, char** argv);
