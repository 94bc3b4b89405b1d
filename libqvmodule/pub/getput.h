/* Big-endian byte-order helpers that work at any alignment, and the
 * type-length-value items that inter-process messages are made of.
 *
 * One item on the wire: 16-bit type, 16-bit length of the value (the four
 * header bytes not counted), then the value; numbers are big-endian and
 * items follow each other without padding. */
#ifndef QV_GETPUT_H
#define QV_GETPUT_H

#include <stdint.h>
#include "qv_defs.h"

QV_BEGIN_DECLS

/* Byte by byte, so that any address works and the host's order does not
 * matter. */
static inline uint16_t get_short(const void *ptr)
{
    const uint8_t *p = (const uint8_t *)ptr;
    return (uint16_t)(((unsigned int)p[0] << 8) | (unsigned int)p[1]);
}

static inline uint32_t get_long(const void *ptr)
{
    const uint8_t *p = (const uint8_t *)ptr;
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}

/* Each writer returns the address just after what it wrote. */
static inline uint8_t *put_short(void *ptr, uint16_t value)
{
    uint8_t *p = (uint8_t *)ptr;
    p[0] = (uint8_t)(value >> 8);
    p[1] = (uint8_t)value;
    return p + 2;
}

static inline uint8_t *put_long(void *ptr, uint32_t value)
{
    uint8_t *p = (uint8_t *)ptr;
    p[0] = (uint8_t)(value >> 24);
    p[1] = (uint8_t)(value >> 16);
    p[2] = (uint8_t)(value >> 8);
    p[3] = (uint8_t)value;
    return p + 4;
}

/* Size of an item's type and length fields. */
#define IPC_TLV_HEADER_LEN 4

/* Encoders write one whole item at *cpp, advance *cpp past it and return
 * its size. They check no bounds: the caller provides the room. A string
 * or byte array longer than 65535 bytes does not fit the length field and
 * is a fatal error; a null string is written as an empty one. */
QV_EXPORT int ipc_encode_tlv_value8(uint8_t **cpp, uint16_t type, uint8_t value) QV_NOEXCEPT;
QV_EXPORT int ipc_encode_tlv_value16(uint8_t **cpp, uint16_t type, uint16_t value) QV_NOEXCEPT;
QV_EXPORT int ipc_encode_tlv_value32(uint8_t **cpp, uint16_t type, uint32_t value) QV_NOEXCEPT;
QV_EXPORT int ipc_encode_tlv_string(uint8_t **cpp, uint16_t type, const char *str) QV_NOEXCEPT;
QV_EXPORT int ipc_encode_tlv_byte_array(uint8_t **cpp, uint16_t type, const char *byte_array,
                                        int array_len) QV_NOEXCEPT;

/* Decoders: the cursor points at an item's type field and the count holds
 * the message bytes from there to the end. On success the value is copied
 * out, cursor and count move past what was consumed and the result is
 * true; on refusal nothing changes. The value decoders do not look at the
 * type: learn it first with ipc_decode_tlv_header, which consumes nothing
 * and wants at least 5 bytes. */
QV_EXPORT boolean ipc_decode_tlv_header(const uint8_t *ptr, unsigned int len, uint16_t *tlv_type,
                                        uint16_t *tlv_len) QV_NOEXCEPT;
QV_EXPORT boolean ipc_decode_tlv_value8(uint8_t **ptr, int *data_len, uint8_t *value) QV_NOEXCEPT;
QV_EXPORT boolean ipc_decode_tlv_value16(uint8_t **ptr, int *data_len, uint16_t *value) QV_NOEXCEPT;
QV_EXPORT boolean ipc_decode_tlv_value32(const uint8_t **ptr, int *data_len,
                                         uint32_t *value) QV_NOEXCEPT;
/* Copies the characters and a terminating NUL: str_len must leave room
 * for it. */
QV_EXPORT boolean ipc_decode_tlv_string(const uint8_t **ptr, unsigned int *data_len, uint8_t *str,
                                        int str_len) QV_NOEXCEPT;
QV_EXPORT boolean ipc_decode_tlv_value_byte_array(const uint8_t **ptr, int *data_len,
                                                  uint8_t *array, int array_len) QV_NOEXCEPT;
/* Passes over the whole item. */
QV_EXPORT boolean ipc_decode_skip_unknown_tlv(const uint8_t **ptr,
                                              unsigned int *data_len) QV_NOEXCEPT;
/* Passes over the header only, so that the items inside the value come
 * next; the whole item must still be in the message. */
QV_EXPORT boolean ipc_decode_skip_tlv_header(const uint8_t **ptr,
                                             unsigned int *data_len) QV_NOEXCEPT;

QV_END_DECLS

#endif
