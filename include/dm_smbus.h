/**
 * @file dm_smbus.h
 * Short blocks to and from one device on the first I2C bus: "/dev/i2c-0", slave address 0x64.
 *
 * Requests and records are the kernel's I2C character device's (linux/i2c-dev.h, linux/i2c.h, and
 * "I2C Device Interface" in the kernel's documentation).
 *
 * Any thread may call these functions. A descriptor serves one call at a time: a receive reads from
 * the slave address that the last send on that descriptor has set.
 */
#ifndef DM_SMBUS_H
#define DM_SMBUS_H

#include "dm_export.h"

#include <stdint.h>

DM_BEGIN_DECLS

/** Most bytes in one block, and the size of a receive buffer. */
#define DM_SMBUS_BLOCK_MAX 32

/**
 * Opens the bus, following links: for reading and writing, non-blocking (open(2), O_NONBLOCK), and
 * closed in child processes.
 * @return the descriptor, which the caller closes with close(2); -1 on failure.
 */
DM_API int32_t smbus_save_open(void);

/**
 * Writes one block. Takes hold of the slave address first, also from a driver that uses it.
 * @param fd from smbus_save_open().
 * @param data not null, not even for an empty block.
 * @param data_len in bytes, at most DM_SMBUS_BLOCK_MAX.
 * @return 0; -22 for null data or a length above 32, the bus is not touched then; -1 when the slave
 *         address could not be set or the transfer failed; or the code of a failed memcpy_s().
 *         Of 601 failed transfers the last one is logged.
 */
DM_API int32_t smbus_msg_send(int32_t fd, const uint8_t* data, uint32_t data_len);

/**
 * Reads one block: its length first, then as many bytes. A transfer that fails is not noticed: it
 * gives the length 0, or zeros in place of the bytes.
 * @param fd from smbus_save_open(), after a smbus_msg_send() on it.
 * @param data_recv room for DM_SMBUS_BLOCK_MAX bytes; left as it is for the length 0.
 * @param recv_len receives the length in bytes, 0 to 32; left as it is when -22 is returned.
 * @return 0; -22 for a null pointer, or when the device announces more than 32 bytes; or the code
 *         of a failed memcpy_s().
 */
DM_API int32_t smbus_msg_recv(int32_t fd, uint8_t* data_recv, uint32_t* recv_len);

DM_END_DECLS

#endif
