/* vexa_pgl.h - libvexa_pgl: the clock, the yield and the process-wide break flag.
 *
 * Every call is safe from any thread. */
#ifndef VEXA_PGL_H
#define VEXA_PGL_H

#ifdef __cplusplus
extern "C" {
#endif
#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/* Returns the wall clock in whole seconds since the epoch. Also stores it in *pTime unless pTime is null.
 * */
unsigned long vexa_time(unsigned long *pTime);

/* Pauses the calling thread until the wall clock's next multiple of 20 ms; a polling loop calls it once a
 * pass. So a loop looks at the beginning of each second, and idle loops cost next to nothing. */
void vexa_load_balance(void);

/* Returns non-zero once the process has been asked to break off. Does not clear the request. */
int vexa_get_global_break(void);

/* Sets (non-zero) or clears (0) the process-wide break flag. Async-signal-safe. */
void vexa_set_global_break(int iBreak);

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
#endif
