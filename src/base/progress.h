// The progress line: one line on a terminal's standard error, redrawn a few
// times a second while a long step runs and erased when it ends. Where
// standard error is no terminal nothing is drawn, so scripts and logs see
// exactly the messages.
#pragma once

#include <cstdint>

struct progress_state {
    uint64_t bytes;     // bytes that have arrived
    uint64_t position;  // how far into the whole the step is (skipped bytes count)
    uint64_t total;     // size of the whole; 0 while unknown
    const char* part;   // name of the piece being worked on, or null
    uint32_t part_size; // characters of `part` (names are fixed fields)
    int32_t skips;      // pieces left out
};

// Starts the line for a step: decides whether it is shown and starts the
// clock the rate is measured by.
void progress_start();
// Draws the line at the first update and then at most every 250 ms.
void progress_update(const progress_state& s);
// Erases the line; the step has ended.
void progress_end();
// Erases the line before other output goes to the terminal; the next update
// draws it again. Nothing happens when no line is shown.
void progress_clear();

// The text of the line for `s` after `elapsed_ms`, without line controls.
// Returns its length (at most size - 1).
uint32_t progress_format(char* line, uint32_t size, const progress_state& s, uint64_t elapsed_ms);
