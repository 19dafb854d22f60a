/*
 * pelmox_shell.h - what the command shell offers the group handlers: the help
 * printer, the group-5 dispatcher and the tool's argument error code.
 */
#ifndef PELMOX_SHELL_H
#define PELMOX_SHELL_H

/* Returned by a handler whose argument count is wrong or whose framing
 * argument is bad (decimal 268431370); dispatchers print it in their
 * "Error happen!" note. */
#define PELMOX_ERR_INVALID_ARGS 0x0FFFF00A

/* Prints the banner, the help section of one group and the footer. Group 0
 * prints all eleven sections; a number outside 0..11 prints banner and footer
 * only. */
void show_help(int group);

/* Group 5 (common commands): checks the arguments, runs one sub-command and
 * prints its notes (under the shell print flag) and help. Always returns 0. */
int pelmox_test_cmn_do(int argc, char *argv[]);

#endif /* PELMOX_SHELL_H */
