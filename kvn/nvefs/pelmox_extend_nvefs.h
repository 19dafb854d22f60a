/*
 * pelmox_extend_nvefs.h - modem NV items and EFS files over the vendor
 * extend service (command 2): read, write and delete of each, for
 * subscription 0 or 1. Operations are serialised by the module's mutex.
 */
#ifndef PELMOX_EXTEND_NVEFS_H
#define PELMOX_EXTEND_NVEFS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Module error codes (transport failures come as -101..-103, and a modem
 * refusal as the modem's own non-zero result). */
#define PELMOX_NVEFS_ERR_SUB (-104)      /* sub not 0 or 1 */
#define PELMOX_NVEFS_ERR_PATH_NULL (-105)
#define PELMOX_NVEFS_ERR_PATH_LEN (-106)
#define PELMOX_NVEFS_ERR_BUF_NULL (-107)
#define PELMOX_NVEFS_ERR_LEN (-108)      /* a length out of range, or a length abort */
#define PELMOX_NVEFS_ERR_NV_ID (-109)    /* nv_id above PELMOX_NV_ID_MAX */

#define PELMOX_NV_ID_MAX 7232
#define PELMOX_NV_DATA_MAX 424         /* item bytes that fit one payload */
#define PELMOX_EFS_READ_PATH_MAX 71
#define PELMOX_EFS_WRITE_PATH_MAX 70   /* write and delete */
#define PELMOX_EFS_FILE_MAX 102410     /* largest file written */
#define PELMOX_EFS_CHUNK_MAX 414       /* bytes of one write chunk */

/* Reads NV item nv_id. *p_buf_len is the capacity of buf on entry; on success
 * the shorter of the item and the capacity is copied and *p_buf_len is
 * lowered to the item length when that is shorter. */
int pelmox_nv_read(uint32_t sub, uint32_t nv_id, uint8_t *buf, uint32_t *p_buf_len);

/* Writes buf_len (1 to 424) bytes of buf as NV item nv_id. */
int pelmox_nv_write_ex(uint32_t sub, uint32_t nv_id, const uint8_t *buf, uint32_t buf_len);

/* Deletes NV item nv_id. */
int pelmox_nv_delete(uint32_t sub, uint32_t nv_id);

/* Reads the whole EFS file path (path_len 1 to 71 bytes, no terminator
 * needed) into buf, whose capacity is *p_buf_len; *p_buf_len becomes the
 * number of bytes received. A file that does not fit stops with -108 after the
 * chunks that fit. */
int pelmox_efs_read(uint32_t sub, const char *path, uint32_t path_len, uint8_t *buf,
                    uint32_t *p_buf_len);

/* Writes buf_len (1 to 102410) bytes as EFS file path (path_len 1 to 70), in
 * chunks of at most 414 bytes. */
int pelmox_efs_write(uint32_t sub, const char *path, uint32_t path_len, const uint8_t *buf,
                     uint32_t buf_len);

/* Deletes EFS file path (path_len 1 to 70). */
int pelmox_efs_delete(uint32_t sub, const char *path, uint32_t path_len);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_EXTEND_NVEFS_H */
