/*
 * pelmox_test_at_cmd.h - command group 8: one AT command written to the
 * modem's AT channel, with a receiver thread for the reply.
 */
#ifndef PELMOX_TEST_AT_CMD_H
#define PELMOX_TEST_AT_CMD_H

#include <stddef.h>

/* Group 8 handler: `kvn 8 atcmd_cxt`. Prints its notes (under the shell
 * print flag) and the group-8 help on a failure. Returns 0. */
int pelmox_test_at_cmd_do(int argc, char *argv[]);

/*
 * Builds the shell line that writes command (a text without white space,
 * at most 100 bytes) and a carriage return to the AT device dev_path into
 * line (capacity line_len). A command with none of the characters that the
 * shell or its echo would interpret ('"', '$', '`', '\') gives
 * `echo "CMD<CR>" > PATH`; any other gives `printf '%s\r\n' 'CMD' > PATH`
 * with each single quote written as '\'' so that the shell runs nothing of
 * it and the device receives exactly what was typed. Returns the length of
 * the line, or -1 when it does not fit whole (the line is never cut).
 */
int pelmox_test_at_cmd_build_line(const char *command, const char *dev_path, char *line, size_t line_len);

#endif /* PELMOX_TEST_AT_CMD_H */
