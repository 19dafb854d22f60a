/*
 * pelmox_smart_test.h - command group 11, modem maintenance from the shell:
 * subsystem restart (SSR), full dump, NV sync and four print switches.
 */
#ifndef PELMOX_SMART_TEST_H
#define PELMOX_SMART_TEST_H

/* Group 11 handler: `kvn 11 <sub> [opt]`. Returns the status of the
 * operation it ran (0 after an argument note); main ignores it, so a failed
 * operation ends without an error note and without help. */
int pelmox_smart_test_do(int argc, char *argv[]);

#endif /* PELMOX_SMART_TEST_H */
