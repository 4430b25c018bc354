/* The library's clock. */
#ifndef TARNGLIDER_CLOCK_H
#define TARNGLIDER_CLOCK_H

#include <stdint.h>

#include <tarnglider/api.h>

TARN_BEGIN_DECLS

/* Microseconds of a monotonic counter with an arbitrary origin; never negative in practice and never set back.
 * Every time-out of the library, and every `_us` time that it reports, is on this clock. Any thread. */
TARN_API int64_t tarn_now_us(void);

TARN_END_DECLS

#endif
