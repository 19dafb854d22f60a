/*
 * pelmox_test_nvefs.h - command group 4: read, write and delete modem NV
 * items and EFS files from the command line, one operation per run.
 */
#ifndef PELMOX_TEST_NVEFS_H
#define PELMOX_TEST_NVEFS_H

#ifdef __cplusplus
extern "C" {
#endif

/* `kvn 4 <sub-command 1..6> <sub> <nv_id|efs_path> [data...]`. Prints the
 * outcome, and on any failure a note and the group's help. Always returns 0. */
int pelmox_test_nvefs_do(int argc, char *argv[]);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_TEST_NVEFS_H */
