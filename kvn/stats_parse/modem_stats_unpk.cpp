/*
 * modem_stats_unpk.cpp - the bit-field unpacker: a 128-bit window loaded from
 * the payload, shifted and masked into fields of 1 to 64 bits. Every check,
 * line and state change happens in a fixed order that the record parsers and
 * the people reading their traces depend on.
 */
#include "modem_stats_unpk.h"

#include <stdio.h>
#include <string.h>

static modem_stats_unpk_state g_unpk; /* the process's unpack state */

#define S g_unpk

modem_stats_unpk_state *modem_stats_unpk_get_state(void)
{
    return &g_unpk;
}

void modem_stats_unpk_reset(uint32_t id, const uint8_t *payload, uint32_t size)
{
    S.g_unpk_id = id;
    S.g_unpk_data_len = MODEM_STATS_UNPK_READ_LIMIT;
    S.g_unpk_data_ptr = payload;
    S.g_unpk_data_size = payload ? size : 0;
    S.g_unpk_data_base = 0;
    S.g_unpk_data_base_bit = 0;
    S.g_unpk_data_cnt = 0;
}

/* ---- helpers ---- */

/* i32 sums and products wrap as the modem's 32-bit arithmetic does, without
 * undefined behaviour in the host compiler. */
static int32_t add32(int32_t a, int32_t b)
{
    return (int32_t)((uint32_t)a + (uint32_t)b);
}

static int32_t sub32(int32_t a, int32_t b)
{
    return (int32_t)((uint32_t)a - (uint32_t)b);
}

static int32_t mul32(int32_t a, int32_t b)
{
    return (int32_t)((uint32_t)a * (uint32_t)b);
}

static uint64_t size_mask(int size)
{
    return size >= 8 ? UINT64_MAX : (((uint64_t)1 << (8 * size)) - 1);
}

/* Little-endian load of size bytes at pos. The positions are only bounded by
 * fixed limits, not by the payload; bytes past the readable size read as the
 * zero padding they would be in a padded buffer, so no load leaves it. */
static uint64_t load_le(uint32_t pos, int size)
{
    uint64_t v = 0;
    if ((uint64_t)pos + (uint64_t)size <= S.g_unpk_data_size) {
        const uint8_t *p = S.g_unpk_data_ptr + pos;
        for (int i = size - 1; i >= 0; --i)
            v = (v << 8) | p[i];
        return v;
    }
    for (int i = size - 1; i >= 0; --i) {
        uint64_t at = (uint64_t)pos + (uint64_t)i;
        uint8_t b = at < S.g_unpk_data_size ? S.g_unpk_data_ptr[at] : 0;
        v = (v << 8) | b;
    }
    return v;
}

const char *modem_stats_unpk_hex(uint64_t v, char *buf)
{
    memset(buf, 0, MODEM_STATS_UNPK_HEX_LEN);
    strcpy(buf, "0x");
    size_t len = 2;
    for (int i = 0; i < 8; ++i) {
        snprintf(buf + len, MODEM_STATS_UNPK_HEX_LEN - len, "%02X", (unsigned)((v >> (8 * i)) & 0xFF));
        len += 2;
    }
    for (int cut = 0; cut < 8 && len >= 4 && buf[len - 1] == '0' && buf[len - 2] == '0'; ++cut) {
        len -= 2;
        buf[len] = '\0';
    }
    return buf;
}

/* ---- primitives ---- */

/* UNPK_I under the name name followed by suffix: UNPK_AT names its window
 * loads "<field>_tmp1" and "<field>_tmp2", and composes that text only when a
 * line shows it, so an untraced field costs no formatting. */
static int unpk_i_named(const char *name, const char *suffix, void *dest, int size)
{
    if (!S.g_unpk_data_ptr) {
        printf("MODEM_STATS_DATA_UNPK, g_unpk_data_ptr is NULL, name: %s%s, id(0x%x)", name, suffix, S.g_unpk_id);
        return -1;
    }
    int32_t pos = add32(S.g_unpk_data_base, S.g_unpk_data_cnt);
    /* Compared unsigned, so a negative position is out of bounds too. */
    if ((uint32_t)pos >= MODEM_STATS_UNPK_READ_LIMIT) {
        printf("(base + cnt)(%d) is can not >= %d for %s%s, id(0x%x)", pos, MODEM_STATS_UNPK_READ_LIMIT, name,
               suffix, S.g_unpk_id);
        return -1;
    }
    uint64_t v = load_le((uint32_t)pos, size);
    if (size == 4) {
        uint32_t v32 = (uint32_t)v;
        memcpy(dest, &v32, sizeof(v32));
    } else {
        memcpy(dest, &v, sizeof(v));
    }
    S.g_unpk_data_cnt = add32(S.g_unpk_data_cnt, size);
    if (S.g_unpk_print_flag) {
        modem_stats_unpk_hex(v, S.g_unpk_hex_i);
        printf("    UNPK_I, name: %s%s, val: %llu(%s), val_size: %d, unpk_cnt: %d, data_base: %d, base_bit: %d\n",
               name, suffix, (unsigned long long)v, S.g_unpk_hex_i, size, S.g_unpk_data_cnt, S.g_unpk_data_base,
               S.g_unpk_data_base_bit);
        S.g_unpk_old_val = v;
    }
    return 0;
}

int UNPK_I(const char *name, void *dest, int size)
{
    return unpk_i_named(name, "", dest, size);
}

void BASE_WITH_BIT(int32_t bit)
{
    S.g_unpk_data_cnt = 0;
    S.g_unpk_data_base_bit = add32(S.g_unpk_data_base_bit, bit);
    S.g_unpk_data_base = S.g_unpk_data_base_bit / 8; /* truncates toward zero: -9 gives -1 */
    if (S.g_unpk_print_flag)
        printf("BASE_WITH_BIT, g_unpk_data_base_bit(%d), g_unpk_data_base(%d), g_unpk_data_cnt(%d), bit(%d), "
               "id(0x%x)",
               S.g_unpk_data_base_bit, S.g_unpk_data_base, S.g_unpk_data_cnt, bit, S.g_unpk_id);
}

int UNPK_SET_BIT(int32_t bit)
{
    int32_t pos = sub32(add32(S.g_unpk_data_base_bit, bit) / 8, S.g_unpk_data_base);
    if (pos < 0 || pos >= S.g_unpk_data_len) {
        /* No blank before "[": the line is matched as it is. */
        printf("UNPK_SET_BIT, pos(%d) should be[0, %d), id(0x%x)", pos, S.g_unpk_data_len, S.g_unpk_id);
        return -1;
    }
    S.g_unpk_data_cnt = pos;
    if (S.g_unpk_print_flag)
        printf("UNPK_SET_BIT, g_unpk_data_base_bit(%d), g_unpk_data_base(%d), g_unpk_data_cnt(%d), bit(%d), "
               "id(0x%x)",
               S.g_unpk_data_base_bit, S.g_unpk_data_base, S.g_unpk_data_cnt, bit, S.g_unpk_id);
    return 0;
}

void PRINT_CNT(int32_t bit, int32_t width, const char *name)
{
    int32_t r = sub32(S.g_unpk_data_base_bit, mul32(add32(S.g_unpk_data_base, S.g_unpk_data_cnt), 8));
    S.g_unpk_low = add32(add32(r, bit), 1);
    S.g_unpk_high = add32(add32(r, bit), width);
    if (S.g_unpk_print_flag)
        printf("PRINT_CNT, base_bit: %d, base_byte: %d, data_cnt: %d, low: %d, high: %d, param: %d, name: %s",
               S.g_unpk_data_base_bit, S.g_unpk_data_base, S.g_unpk_data_cnt, S.g_unpk_low, S.g_unpk_high, bit,
               name);
}

/* The 64 window bits that begin at bit low (2..65). The upper part is moved
 * up by a double-precision product, as the modem's implementation does: it
 * rounds wide values to 53 bits, and a product that reaches 2^64 becomes all
 * ones. For low 65 the right shift by 64 counts modulo 64 and leaves tmp1 as
 * it is. No record reaches either effect; both are kept. */
static uint64_t window_from(int32_t low)
{
    unsigned down = (unsigned)(low - 1) % 64;
    uint64_t low_bits = low - 1 >= 64 ? UINT64_MAX : (((uint64_t)1 << (low - 1)) - 1);
    double up = (double)(S.g_unpk_tmp2 & low_bits) * (double)((uint64_t)1 << (65 - low)); /* 2^(65-low), exact */
    uint64_t upper = up >= 18446744073709551616.0 ? UINT64_MAX : (uint64_t)up;
    S.g_unpk_tmp1 = S.g_unpk_tmp1 >> down;
    S.g_unpk_tmp2 = upper;
    return S.g_unpk_tmp1 | S.g_unpk_tmp2;
}

int UNPK_MID(int32_t low, int32_t high, const char *name, int size)
{
    uint64_t m = size_mask(size);
    uint64_t value;
    int32_t bit_num;
    if (low == 1) {
        /* Bound 64 here but 128 below: the asymmetry is the modem's and stays. */
        if (high < 1 || high > 64) {
            printf("UNPK_MID, high(%d) should be in [1, %d] for %s, id(0x%x)", high, 64, name, S.g_unpk_id);
            return -1;
        }
        bit_num = 64;
        value = S.g_unpk_tmp1;
    } else {
        if (low < 1 || low > 128) {
            printf("UNPK_MID, low(%d) should be in [1, 128] for %s, id(0x%x)", low, name, S.g_unpk_id);
            return -1;
        }
        if (high < 1 || high > 128) {
            printf("UNPK_MID, high(%d) should be in [1, 128] for %s, id(0x%x)", high, name, S.g_unpk_id);
            return -1;
        }
        if (low > high) {
            printf("UNPK_MID, low(%d) should <= high(%d) for %s, id(0x%x)", low, high, name, S.g_unpk_id);
            return -1;
        }
        bit_num = 129 - low;
        if (bit_num < 64 || bit_num > 128) {
            printf("UNPK_HIGH, bit_num(%d) should be in [64, 128] for %s, id(0x%x)", bit_num, name, S.g_unpk_id);
            return -1;
        }
        value = window_from(low);
    }
    S.g_unpk_old_val = value;
    S.g_unpk_new_val = value & m;
    if (S.g_unpk_print_flag)
        printf("UNPK_HIGH, old_val: %llu, new_val: %llu, bit_num: %d, name: %s, id(0x%x)", (unsigned long long)value,
               (unsigned long long)(value & m), bit_num, name, S.g_unpk_id);

    /* UNPK_LOW: keep the lowest n bits. */
    int32_t n = high - low + 1;
    int bits = 8 * size;
    if ((uint32_t)(high - low) >= (uint32_t)bits) {
        printf("UNPK_LOW, bit_num(%d) should be in [1, %d] for %s, id(0x%x)", n, bits, name, S.g_unpk_id);
        return -1;
    }
    value &= m >> (bits - n);
    S.g_unpk_mask_max = m;
    S.g_unpk_new_val = value;
    /* old_val shows the value after masking, like new_val: that is the line. */
    if (S.g_unpk_print_flag)
        printf("UNPK_LOW, old_val: %llu, new_val: %llu, bit_num: %d, mask_max(0x%llx), old_size(%d), name: %s, "
               "id(0x%x)",
               (unsigned long long)value, (unsigned long long)value, n, (unsigned long long)m, size, name,
               S.g_unpk_id);

    uint64_t old = low == 1 ? S.g_unpk_tmp1 : value;
    S.g_unpk_old_val = old;
    if (S.g_unpk_print_flag)
        printf("UNPK_MID, old_val: %llu, new_val: %llu, low: %d, high: %d, name: %s, id(0x%x)\n",
               (unsigned long long)old, (unsigned long long)value, low, high, name, S.g_unpk_id);
    return 0;
}

int UNPK_AT(const char *name, int32_t bit_start, int32_t bit_num, void *dest, int size)
{
    if (UNPK_SET_BIT(bit_start) != 0)
        return -1;
    PRINT_CNT(bit_start, bit_num, name);
    if (unpk_i_named(name, "_tmp1", &S.g_unpk_tmp1, 8) != 0)
        return -1;
    if (unpk_i_named(name, "_tmp2", &S.g_unpk_tmp2, 8) != 0)
        return -1;
    if (UNPK_MID(S.g_unpk_low, S.g_unpk_high, name, size) != 0)
        return -1;
    uint64_t v = S.g_unpk_new_val & size_mask(size);
    switch (size) {
    case 1: { uint8_t x = (uint8_t)v; memcpy(dest, &x, 1); break; }
    case 2: { uint16_t x = (uint16_t)v; memcpy(dest, &x, 2); break; }
    case 4: { uint32_t x = (uint32_t)v; memcpy(dest, &x, 4); break; }
    default: memcpy(dest, &v, 8); break;
    }
    if (S.g_unpk_print_flag) {
        modem_stats_unpk_hex(v, S.g_unpk_hex_at);
        printf("    UNPK_AT, name: %s, val: %llu(%s), low: %d, high: %d, bit_start: %d, bit_num: %d\n", name,
               (unsigned long long)v, S.g_unpk_hex_at, S.g_unpk_low, S.g_unpk_high, bit_start, bit_num);
    }
    return 0;
}
