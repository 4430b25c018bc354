// The settable clock of the tests: it stands in for the library's clock seam and moves only when a test moves it.
#ifndef TEST_VIRTUAL_CLOCK_H
#define TEST_VIRTUAL_CLOCK_H

#include <stdint.h>

namespace virtual_clock {

// Puts monotonic and wall clock at their starting values: 1,000 s and a fixed date.
void reset();
// Moves both clocks forward.
void advance(int64_t us);
// Sets the monotonic clock; the wall clock moves along.
void set(int64_t us);
// Moves the wall clock alone, backwards too.
void step_wall(int64_t us);

} // namespace virtual_clock

#endif
