/*
 * pelmox_test_rf.h - command group 3: the modem's GPIO test and RF-transmit
 * test, set through a vendor request and read or cleared through their EFS
 * state files.
 */
#ifndef PELMOX_TEST_RF_H
#define PELMOX_TEST_RF_H

/* Group 3 handler: `kvn 3 <sub> ...`, sub 0 to 5. Prints its notes (under
 * the shell print flag) and the group-3 help on a failure. Returns 0. */
int pelmox_test_rf_do(int argc, char *argv[]);

#endif /* PELMOX_TEST_RF_H */
