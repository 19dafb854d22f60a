/*
 * pelmox_conv.h - the tolerant number and hex conversions of the command line.
 * Malformed text never fails: it converts to some number by fixed rules, which
 * scripts driving the tool rely on.
 */
#ifndef PELMOX_CONV_H
#define PELMOX_CONV_H

#include <stdint.h>

/* Decimal text (atoi rules) or, after a "0x" / "0X" prefix, hex digits read by
 * pelmox_hex_string_to_int. Null gives 0 (with a note under the shell print
 * flag). */
int32_t pelmox_string_to_int(const char *s);

/* Hex digits without prefix. Every character is one digit position: a-f / A-F
 * are 10..15, 0-9 their value, anything else 0. Each place value saturates at
 * the int32 limits and the sum wraps. Only the first 50 characters are read.
 * Null gives 0 (with a note under the shell print flag), "" gives 0. */
int32_t pelmox_hex_string_to_int(const char *s);

/* Writes two lower-case hex characters per byte of in[0..count) to out, with
 * no terminator. Writes nothing for a null input or a count below 1. */
void pelmox_byte_to_hex(const uint8_t *in, int32_t count, char *out);

/* base raised to exp, in double precision. */
double pelmox_pow(int base, int exp);

#endif /* PELMOX_CONV_H */
