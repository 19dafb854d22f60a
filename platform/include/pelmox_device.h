/*
 * pelmox_device.h - where the platform offers the handset's character devices.
 * The tool names a device by its handset path (the AT channel is "/dev/smd8")
 * and asks this seam for the path to open or write; on a handset the answer is
 * the same path.
 */
#ifndef PELMOX_DEVICE_H
#define PELMOX_DEVICE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copies into out (capacity out_len, terminated) the path of device dev on
 * this platform. Returns 0 when the device is there. When it is not (or the
 * answer does not fit), returns -1 and still writes a path: one that cannot be
 * opened nor created by anyone, so a write to it fails and leaves nothing
 * behind. The path holds only letters, digits and "/._-", so it may be placed
 * in a shell command line as it is.
 */
int pelmox_device_path(const char *dev, char *out, size_t out_len);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_DEVICE_H */
