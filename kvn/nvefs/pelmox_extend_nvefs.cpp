/*
 * pelmox_extend_nvefs.cpp - NV item and EFS file operations carried by
 * command 2 of the vendor extend service. Every operation fills one 512-byte
 * payload and gets a 444-byte reply; EFS files longer than one payload move in
 * chunks, a write carrying the modem's transfer instance from chunk to chunk.
 */
#include "pelmox_extend_nvefs.h"

#include <pthread.h>
#include <string.h>

#include "pelmox_extend_qmi.h"
#include "pelmox_trace.h"

static const char k_trace_src[] = "proprietary/modem/hal/qmi/pelmox_extend_nvefs";

#define NVEFS_CMD_ID 2
#define NVEFS_REQ_LEN 512
#define NVEFS_RSP_LEN 444

/* Operations (payload offset 0). */
#define NVEFS_OP_NV_READ 1
#define NVEFS_OP_NV_WRITE 2
#define NVEFS_OP_NV_DELETE 3
#define NVEFS_OP_EFS_READ 4
#define NVEFS_OP_EFS_WRITE 5
#define NVEFS_OP_EFS_DELETE 6

/* Request payload offsets. */
#define REQ_OFF_OP 0
#define REQ_OFF_SUB 1
#define REQ_OFF_ID 2 /* nv_id, or the EFS write's transfer instance */
#define REQ_OFF_PATH_LEN 4
#define REQ_OFF_PATH 5
#define REQ_OFF_TOTAL 76
#define REQ_OFF_CHUNK 80
#define REQ_OFF_POS 84
#define REQ_OFF_DATA 88

/* Reply offsets. */
#define RSP_OFF_LEN_ALL 4
#define RSP_OFF_LEN_SEND 8
#define RSP_OFF_RESULT 16
#define RSP_OFF_DATA 20
#define RSP_DATA_MAX (NVEFS_RSP_LEN - RSP_OFF_DATA) /* 424 */

#define EFS_FIRST_INSTANCE 0xFF /* asks the modem to open a new write transfer */
#define EFS_CHUNK_COUNT_MAX 299
#define EFS_READ_TOTAL_MAX 102409 /* a read past this many bytes is complete */

static struct {
    pthread_mutex_t mutex; /* serialises the operations' exchanges with the modem */
} s_nvefs = {PTHREAD_MUTEX_INITIALIZER};

/* ---- payload helpers ---- */

static void put_u16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
}

static void put_u32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}

static uint32_t get_u32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

/* One exchange of command 2: the whole 512-byte payload out, up to 444 bytes
 * back into rsp (cleared first, so a short reply reads as zeros). Returns the
 * send's result as mapped for this module. Called with the module mutex held. */
static int nvefs_exchange(const uint8_t *req, uint8_t *rsp)
{
    memset(rsp, 0, NVEFS_RSP_LEN);
    int32_t rsp_len = NVEFS_RSP_LEN;
    return pelmox_qmi_result_map(pelmox_extend_qmi_send_sync(NVEFS_CMD_ID, req, NVEFS_REQ_LEN, rsp, &rsp_len));
}

static void nvefs_fill_nv(uint8_t *req, uint8_t op, uint32_t sub, uint32_t nv_id)
{
    memset(req, 0, NVEFS_REQ_LEN);
    req[REQ_OFF_OP] = op;
    req[REQ_OFF_SUB] = (uint8_t)sub;
    put_u16(req + REQ_OFF_ID, (uint16_t)nv_id);
}

static void nvefs_fill_efs(uint8_t *req, uint8_t op, uint32_t sub, const char *path, uint32_t path_len)
{
    memset(req, 0, NVEFS_REQ_LEN);
    req[REQ_OFF_OP] = op;
    req[REQ_OFF_SUB] = (uint8_t)sub;
    req[REQ_OFF_PATH_LEN] = (uint8_t)path_len;
    memcpy(req + REQ_OFF_PATH, path, path_len);
}

/* Checks shared by the NV operations, in their order: sub, then nv_id.
 * Returns 0 or the error code, traced under the operation's name. */
static int nvefs_check_nv(const char *func, uint32_t sub, uint32_t nv_id)
{
    if (sub >= 2) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "sub invalid");
        return PELMOX_NVEFS_ERR_SUB;
    }
    if (nv_id > PELMOX_NV_ID_MAX) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "nv_id is out range(%d)", PELMOX_NV_ID_MAX);
        return PELMOX_NVEFS_ERR_NV_ID;
    }
    return 0;
}

/* Checks shared by the EFS operations, in their order: sub, path length
 * (1 to path_max), path. Returns 0 or the error code, traced under the
 * operation's name. */
static int nvefs_check_efs(const char *func, uint32_t sub, const char *path, uint32_t path_len, uint32_t path_max)
{
    if (sub >= 2) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "sub invalid");
        return PELMOX_NVEFS_ERR_SUB;
    }
    if (path_len == 0 || path_len > path_max) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "len invalid");
        return PELMOX_NVEFS_ERR_PATH_LEN;
    }
    if (!path) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "efs_path is null");
        return PELMOX_NVEFS_ERR_PATH_NULL;
    }
    return 0;
}

/* Sends one single-exchange request (NV operations, EFS delete) and turns its
 * outcome into the operation's result: the mapped transport code, the
 * modem's non-zero result, or 0. Its traces carry the calling operation's
 * name (func), as every trace of an operation does. */
static int nvefs_single_request(const char *func, const uint8_t *req, uint8_t *rsp)
{
    pthread_mutex_lock(&s_nvefs.mutex);
    int result = nvefs_exchange(req, rsp);
    pthread_mutex_unlock(&s_nvefs.mutex);
    int32_t rsp_result = (int32_t)get_u32(rsp + RSP_OFF_RESULT);
    pelmox_trace_emit(k_trace_src, __LINE__, func, "result = %d, rsp.result = %d", result, rsp_result);
    if (result != 0) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "pelmox_extend_qmi_send_sync fail");
        return result;
    }
    if (rsp_result != 0) {
        pelmox_trace_emit(k_trace_src, __LINE__, func, "qmi response fail");
        return rsp_result;
    }
    return 0;
}

/* ---- NV items ---- */

int pelmox_nv_read(uint32_t sub, uint32_t nv_id, uint8_t *buf, uint32_t *p_buf_len)
{
    uint8_t req[NVEFS_REQ_LEN];
    uint8_t rsp[NVEFS_RSP_LEN];
    int result;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    PELMOX_TRACE(k_trace_src, "pelmox_nv_read, sub_id %d, nv_id: %d", (int)sub, (int)nv_id);
    result = nvefs_check_nv(__func__, sub, nv_id);
    if (result != 0)
        goto exit;
    if (!buf) {
        PELMOX_TRACE(k_trace_src, "buf is null");
        result = PELMOX_NVEFS_ERR_BUF_NULL;
        goto exit;
    }
    if (!p_buf_len) {
        PELMOX_TRACE(k_trace_src, "p_buf_len is null");
        result = PELMOX_NVEFS_ERR_LEN;
        goto exit;
    }
    PELMOX_TRACE(k_trace_src, "buf_len: %d", (int)*p_buf_len);
    if (*p_buf_len == 0) {
        PELMOX_TRACE(k_trace_src, "buf_len is invalid");
        result = PELMOX_NVEFS_ERR_LEN;
        goto exit;
    }

    nvefs_fill_nv(req, NVEFS_OP_NV_READ, sub, nv_id);
    result = nvefs_single_request(__func__, req, rsp);
    if (result != 0)
        goto exit;
    {
        uint32_t data_len_all = get_u32(rsp + RSP_OFF_LEN_ALL);
        PELMOX_TRACE(k_trace_src, "rsp.data_len_all = %d", (int)data_len_all);
        if (data_len_all == 0) {
            PELMOX_TRACE(k_trace_src, "rsp.data_len_all is invalid");
            result = PELMOX_NVEFS_ERR_LEN;
            goto exit;
        }
        /* The reply carries at most 424 item bytes whatever length it claims. */
        if (data_len_all > RSP_DATA_MAX)
            data_len_all = RSP_DATA_MAX;
        if (*p_buf_len > data_len_all)
            *p_buf_len = data_len_all;
        memcpy(buf, rsp + RSP_OFF_DATA, *p_buf_len);
    }
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

int pelmox_nv_write_ex(uint32_t sub, uint32_t nv_id, const uint8_t *buf, uint32_t buf_len)
{
    uint8_t req[NVEFS_REQ_LEN];
    uint8_t rsp[NVEFS_RSP_LEN];
    int result;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    /* Traced under the name of the original write call, which log readers
     * search for. */
    PELMOX_TRACE(k_trace_src, "pelmox_nv_write, sub_id %d, nv_id: %d, buf_len: %d", (int)sub, (int)nv_id,
                 (int)buf_len);
    result = nvefs_check_nv(__func__, sub, nv_id);
    if (result != 0)
        goto exit;
    if (!buf) {
        PELMOX_TRACE(k_trace_src, "buf is null");
        result = PELMOX_NVEFS_ERR_BUF_NULL;
        goto exit;
    }
    if (buf_len == 0 || buf_len > PELMOX_NV_DATA_MAX) {
        PELMOX_TRACE(k_trace_src, "buf_len is invalid");
        result = PELMOX_NVEFS_ERR_LEN;
        goto exit;
    }

    nvefs_fill_nv(req, NVEFS_OP_NV_WRITE, sub, nv_id);
    put_u32(req + REQ_OFF_TOTAL, buf_len);
    memcpy(req + REQ_OFF_DATA, buf, buf_len);
    result = nvefs_single_request(__func__, req, rsp);
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

int pelmox_nv_delete(uint32_t sub, uint32_t nv_id)
{
    uint8_t req[NVEFS_REQ_LEN];
    uint8_t rsp[NVEFS_RSP_LEN];
    int result;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    PELMOX_TRACE(k_trace_src, "pelmox_nv_delete, sub_id %d, nv_id: %d", (int)sub, (int)nv_id);
    result = nvefs_check_nv(__func__, sub, nv_id);
    if (result != 0)
        goto exit;
    nvefs_fill_nv(req, NVEFS_OP_NV_DELETE, sub, nv_id);
    result = nvefs_single_request(__func__, req, rsp);
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

/* ---- EFS read ---- */

/*
 * Asks for the file chunk by chunk, each request naming the bytes received so
 * far, until the file's size is reached. The capacity is checked before each
 * chunk is copied: a chunk that would fill or overrun it stops the read with
 * -108, leaving the chunks already copied (and *p_buf_len counting them).
 * A file of exactly the capacity stops the same way, so the largest file that
 * reads whole is one byte shorter than the buffer.
 */
int pelmox_efs_read(uint32_t sub, const char *path, uint32_t path_len, uint8_t *buf, uint32_t *p_buf_len)
{
    uint8_t req[NVEFS_REQ_LEN];
    uint8_t rsp[NVEFS_RSP_LEN];
    int result;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    PELMOX_TRACE(k_trace_src, "pelmox_efs_read, sub_id %d, path_len: %d", (int)sub, (int)path_len);
    result = nvefs_check_efs(__func__, sub, path, path_len, PELMOX_EFS_READ_PATH_MAX);
    if (result != 0)
        goto exit;
    if (!buf) {
        PELMOX_TRACE(k_trace_src, "buf is null");
        result = PELMOX_NVEFS_ERR_BUF_NULL;
        goto exit;
    }
    if (!p_buf_len) {
        PELMOX_TRACE(k_trace_src, "p_buf_len is null");
        result = PELMOX_NVEFS_ERR_LEN;
        goto exit;
    }
    if (*p_buf_len == 0) {
        PELMOX_TRACE(k_trace_src, "buf_len is invalid");
        result = PELMOX_NVEFS_ERR_LEN;
        goto exit;
    }
    PELMOX_TRACE(k_trace_src, "path_value: %.*s", (int)path_len, path);

    pthread_mutex_lock(&s_nvefs.mutex);
    {
        const uint32_t buf_len = *p_buf_len; /* the caller's capacity */
        uint32_t data_len_recv = 0;
        uint32_t read_count = 0;
        while (read_count < EFS_CHUNK_COUNT_MAX) {
            const uint32_t data_len_cur = data_len_recv;
            nvefs_fill_efs(req, NVEFS_OP_EFS_READ, sub, path, path_len);
            put_u32(req + REQ_OFF_POS, data_len_cur);
            result = nvefs_exchange(req, rsp);
            if (result != 0) {
                PELMOX_TRACE(k_trace_src, "pelmox_extend_qmi_send_sync fail, ABORT");
                break;
            }
            int32_t rsp_result = (int32_t)get_u32(rsp + RSP_OFF_RESULT);
            if (rsp_result != 0) {
                PELMOX_TRACE(k_trace_src, "qmi response fail");
                result = rsp_result;
                break;
            }
            const uint32_t data_len_all = get_u32(rsp + RSP_OFF_LEN_ALL);
            const int32_t data_len_send = (int32_t)get_u32(rsp + RSP_OFF_LEN_SEND);
            data_len_recv += (uint32_t)data_len_send;
            read_count++;
            PELMOX_TRACE(k_trace_src,
                         "data_len_all = %d, data_len_send = %d, data_len_recv = %d, read_count = %d, "
                         "data_len_cur = %d",
                         (int)data_len_all, data_len_send, (int)data_len_recv, (int)read_count,
                         (int)data_len_cur);
            if (data_len_send <= 0) {
                PELMOX_TRACE(k_trace_src, "abort, data_len_send <= 0");
                result = PELMOX_NVEFS_ERR_LEN;
                break;
            }
            /* A chunk claiming more than one reply can carry is malformed. */
            if (data_len_send > RSP_DATA_MAX) {
                PELMOX_TRACE(k_trace_src, "abort, data_len_send > %d", RSP_DATA_MAX);
                result = PELMOX_NVEFS_ERR_LEN;
                break;
            }
            if (buf_len <= data_len_recv) {
                PELMOX_TRACE(k_trace_src, "abort, buf_len <= data_len_recv");
                result = PELMOX_NVEFS_ERR_LEN;
                break;
            }
            /* "errro" is the wording log readers match. */
            if (buf_len <= data_len_cur) {
                PELMOX_TRACE(k_trace_src, "errro, abort, buf_len <= req.data_len_cur");
                result = PELMOX_NVEFS_ERR_LEN;
                break;
            }
            *p_buf_len = data_len_recv;
            memcpy(buf + data_len_cur, rsp + RSP_OFF_DATA, (size_t)data_len_send);
            if (data_len_recv >= data_len_all || data_len_recv > EFS_READ_TOTAL_MAX)
                break;
        }
    }
    pthread_mutex_unlock(&s_nvefs.mutex);
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

/* ---- EFS write ---- */

/*
 * Sends the file in chunks of at most 414 bytes. The first chunk carries
 * instance 255, which opens a transfer on the modem; a non-negative result in
 * each reply is the transfer's instance, carried by the next chunk. The modem
 * makes the file visible when the last chunk arrives.
 */
int pelmox_efs_write(uint32_t sub, const char *path, uint32_t path_len, const uint8_t *buf, uint32_t buf_len)
{
    uint8_t req[NVEFS_REQ_LEN];
    uint8_t rsp[NVEFS_RSP_LEN];
    int result;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    PELMOX_TRACE(k_trace_src, "pelmox_efs_write, sub_id %d, path_len: %d, buf_len: %d", (int)sub,
                 (int)path_len, (int)buf_len);
    result = nvefs_check_efs(__func__, sub, path, path_len, PELMOX_EFS_WRITE_PATH_MAX);
    if (result != 0)
        goto exit;
    if (!buf) {
        PELMOX_TRACE(k_trace_src, "buf is null");
        result = PELMOX_NVEFS_ERR_BUF_NULL;
        goto exit;
    }
    if (buf_len == 0 || buf_len > PELMOX_EFS_FILE_MAX) {
        PELMOX_TRACE(k_trace_src, "buf_len is invalid");
        result = PELMOX_NVEFS_ERR_LEN;
        goto exit;
    }
    PELMOX_TRACE(k_trace_src, "path_value: %.*s", (int)path_len, path);

    pthread_mutex_lock(&s_nvefs.mutex);
    {
        uint16_t instance = EFS_FIRST_INSTANCE;
        uint32_t data_len_sent = 0;
        uint32_t send_count = 0;
        while (send_count < EFS_CHUNK_COUNT_MAX) {
            const uint32_t left_num = buf_len - data_len_sent;
            PELMOX_TRACE(k_trace_src, "left_num(%d)", (int)left_num);
            const uint32_t send_num = left_num < PELMOX_EFS_CHUNK_MAX ? left_num : PELMOX_EFS_CHUNK_MAX;
            PELMOX_TRACE(k_trace_src, "send_num(%d)", (int)send_num);

            const uint32_t data_len_cur = data_len_sent;
            nvefs_fill_efs(req, NVEFS_OP_EFS_WRITE, sub, path, path_len);
            put_u16(req + REQ_OFF_ID, instance);
            put_u32(req + REQ_OFF_TOTAL, buf_len);
            put_u32(req + REQ_OFF_CHUNK, send_num);
            put_u32(req + REQ_OFF_POS, data_len_cur);
            memcpy(req + REQ_OFF_DATA, buf + data_len_cur, send_num);

            result = nvefs_exchange(req, rsp);
            int32_t rsp_result = (int32_t)get_u32(rsp + RSP_OFF_RESULT);
            PELMOX_TRACE(k_trace_src, "result = %d, rsp.result[>=0 is instance id] = %d", result, rsp_result);
            if (result != 0) {
                PELMOX_TRACE(k_trace_src, "pelmox_extend_qmi_send_sync fail, ABORT");
                break;
            }
            if (rsp_result < 0) {
                PELMOX_TRACE(k_trace_src, "qmi response fail");
                result = rsp_result;
                break;
            }
            instance = (uint16_t)rsp_result;
            data_len_sent += send_num;
            send_count++;
            PELMOX_TRACE(k_trace_src,
                         "data_len_all = %d, data_len_send = %d, data_len_recv = %d, send_count = %d, "
                         "data_len_cur = %d",
                         (int)buf_len, (int)send_num, (int)data_len_sent, (int)send_count, (int)data_len_cur);
            if (data_len_sent >= buf_len)
                break;
        }
    }
    pthread_mutex_unlock(&s_nvefs.mutex);
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

/* ---- EFS delete ---- */

int pelmox_efs_delete(uint32_t sub, const char *path, uint32_t path_len)
{
    uint8_t req[NVEFS_REQ_LEN];
    uint8_t rsp[NVEFS_RSP_LEN];
    int result;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    PELMOX_TRACE(k_trace_src, "pelmox_efs_delete, sub_id %d, path_len: %d", (int)sub, (int)path_len);
    result = nvefs_check_efs(__func__, sub, path, path_len, PELMOX_EFS_WRITE_PATH_MAX);
    if (result != 0)
        goto exit;
    PELMOX_TRACE(k_trace_src, "path_value: %.*s", (int)path_len, path);
    nvefs_fill_efs(req, NVEFS_OP_EFS_DELETE, sub, path, path_len);
    result = nvefs_single_request(__func__, req, rsp);
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}
