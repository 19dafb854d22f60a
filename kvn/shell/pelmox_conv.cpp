/*
 * pelmox_conv.cpp - number and hex conversions shared by the commands that
 * take raw data on the command line (raw vendor message, diag send, eSIM
 * test). Their tolerance of malformed text is part of the command-line
 * contract, so none of them ever reports an error.
 */
#include "pelmox_conv.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "pelmox_trace.h"

/* The digit list of pelmox_hex_string_to_int holds this many positions. */
#define PELMOX_HEX_DIGITS_MAX 50

/* Prints the null-input note when the shell print flag is on. */
static void pelmox_conv_note_null(void)
{
    if (pelmox_trace_shell_on())
        printf("\ninput is null\n");
}

/* One hex digit position: a-f / A-F give 10..15, and every other character
 * gives what atoi makes of it alone, which is its value for 0-9 and 0 for
 * anything else (so "G", blanks and signs still take a place). */
static int32_t pelmox_conv_digit(char c)
{
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= '0' && c <= '9')
        return c - '0';
    return 0;
}

/* double to int32 by truncation toward zero, clamped at the int32 limits
 * (a plain cast would be undefined outside them). */
static int32_t pelmox_conv_saturate(double d)
{
    if (d >= 2147483647.0)
        return INT32_MAX;
    if (d <= -2147483648.0)
        return INT32_MIN;
    return (int32_t)d;
}

double pelmox_pow(int base, int exp)
{
    return pow((double)base, (double)exp);
}

int32_t pelmox_hex_string_to_int(const char *s)
{
    if (s == NULL) {
        pelmox_conv_note_null();
        return 0;
    }

    int32_t digits[PELMOX_HEX_DIGITS_MAX];
    int n = 0;
    /* Text longer than the digit list is cut here: only its first 50
     * characters are read and the rest is ignored. */
    for (const char *p = s; *p != '\0' && n < PELMOX_HEX_DIGITS_MAX; ++p)
        digits[n++] = pelmox_conv_digit(*p);

    /* Each place value is worked out in double precision and saturated to
     * int32 on its own; the running sum wraps like a 32-bit register, which
     * is done in unsigned arithmetic to keep it defined. */
    uint32_t acc = 0;
    for (int i = 0; i < n; ++i) {
        double term = (double)digits[i] * pelmox_pow(16, n - 1 - i);
        acc += (uint32_t)pelmox_conv_saturate(term);
    }
    return (int32_t)acc;
}

int32_t pelmox_string_to_int(const char *s)
{
    if (s == NULL) {
        pelmox_conv_note_null();
        return 0;
    }
    /* Setting bit 0x20 folds 'X' to 'x'; no other character maps onto it. */
    if (s[0] == '0' && (s[1] | 0x20) == 'x')
        return pelmox_hex_string_to_int(s + 2);
    return atoi(s);
}

void pelmox_byte_to_hex(const uint8_t *in, int32_t count, char *out)
{
    static const char k_hex[] = "0123456789abcdef";
    if (in == NULL || count < 1)
        return;
    for (int32_t i = 0; i < count; ++i) {
        out[2 * i] = k_hex[in[i] >> 4];
        out[2 * i + 1] = k_hex[in[i] & 0x0F];
    }
}
