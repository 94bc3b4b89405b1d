// Type-length-value items of inter-process messages. Encoders trust the
// caller for room; decoders trust nothing in the message: every length
// field is checked against the bytes left before anything is read past the
// header, and a refusal leaves cursor and count as they were.

#include <string.h>

#include <optional>

#include "getput.h"
#include "qv_assert.h"

namespace
{

constexpr int kHeader = IPC_TLV_HEADER_LEN;
constexpr uint32_t kMaxValue = 0xffff;

int put_item(uint8_t **cpp, uint16_t type, const void *value, uint16_t len)
{
    uint8_t *p = put_short(put_short(*cpp, type), len);
    if (len != 0)
        memcpy(p, value, len);
    *cpp = p + len;
    return kHeader + len;
}

// The length field of the item at p when the whole item lies within the
// count; the count keeps the signedness the caller's API gives it.
template <typename Count> std::optional<uint16_t> whole_item(const uint8_t *p, Count count)
{
    if (count < static_cast<Count>(kHeader))
        return std::nullopt;
    uint16_t len = get_short(p + 2);
    if (count < static_cast<Count>(len) + static_cast<Count>(kHeader))
        return std::nullopt;
    return len;
}

template <typename Ptr, typename Count> void consume(Ptr *ptr, Count *data_len, int n)
{
    *ptr += n;
    *data_len -= static_cast<Count>(n);
}

// The value of a fixed-size item, whose length field must be exactly Size.
template <int Size, typename Ptr> std::optional<uint32_t> fixed_value(Ptr *ptr, int *data_len)
{
    if (*data_len < Size + kHeader)
        return std::nullopt;
    const uint8_t *p = *ptr;
    if (get_short(p + 2) != Size)
        return std::nullopt;
    uint32_t v = 0;
    for (int i = 0; i < Size; i++)
        v = (v << 8) | p[kHeader + i];
    consume(ptr, data_len, Size + kHeader);
    return v;
}

} // namespace

extern "C" QV_EXPORT int ipc_encode_tlv_value8(uint8_t **cpp, uint16_t type, uint8_t value) noexcept
{
    return put_item(cpp, type, &value, 1);
}

extern "C" QV_EXPORT int ipc_encode_tlv_value16(uint8_t **cpp, uint16_t type,
                                                uint16_t value) noexcept
{
    uint8_t be[2];
    put_short(be, value);
    return put_item(cpp, type, be, sizeof be);
}

extern "C" QV_EXPORT int ipc_encode_tlv_value32(uint8_t **cpp, uint16_t type,
                                                uint32_t value) noexcept
{
    uint8_t be[4];
    put_long(be, value);
    return put_item(cpp, type, be, sizeof be);
}

extern "C" QV_EXPORT int ipc_encode_tlv_string(uint8_t **cpp, uint16_t type,
                                               const char *str) noexcept
{
    size_t len = str != nullptr ? strlen(str) : 0;
    // A longer value would go out with a wrapped length field and corrupt
    // every item after it.
    QV_ASSERT(len <= kMaxValue);
    return put_item(cpp, type, str, static_cast<uint16_t>(len));
}

extern "C" QV_EXPORT int ipc_encode_tlv_byte_array(uint8_t **cpp, uint16_t type,
                                                   const char *byte_array, int array_len) noexcept
{
    QV_ASSERT(array_len >= 0 && static_cast<uint32_t>(array_len) <= kMaxValue);
    return put_item(cpp, type, byte_array, static_cast<uint16_t>(array_len));
}

extern "C" QV_EXPORT boolean ipc_decode_tlv_header(const uint8_t *ptr, unsigned int len,
                                                   uint16_t *tlv_type, uint16_t *tlv_len) noexcept
{
    if (len < kHeader + 1)
        return FALSE;
    *tlv_type = get_short(ptr);
    *tlv_len = get_short(ptr + 2);
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_tlv_value8(uint8_t **ptr, int *data_len,
                                                   uint8_t *value) noexcept
{
    auto v = fixed_value<1>(ptr, data_len);
    if (!v)
        return FALSE;
    *value = static_cast<uint8_t>(*v);
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_tlv_value16(uint8_t **ptr, int *data_len,
                                                    uint16_t *value) noexcept
{
    auto v = fixed_value<2>(ptr, data_len);
    if (!v)
        return FALSE;
    *value = static_cast<uint16_t>(*v);
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_tlv_value32(const uint8_t **ptr, int *data_len,
                                                    uint32_t *value) noexcept
{
    auto v = fixed_value<4>(ptr, data_len);
    if (!v)
        return FALSE;
    *value = *v;
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_tlv_string(const uint8_t **ptr, unsigned int *data_len,
                                                   uint8_t *str, int str_len) noexcept
{
    auto len = whole_item(*ptr, *data_len);
    if (!len || str_len < *len + 1)
        return FALSE;
    memcpy(str, *ptr + kHeader, *len);
    str[*len] = '\0';
    consume(ptr, data_len, kHeader + *len);
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_tlv_value_byte_array(const uint8_t **ptr, int *data_len,
                                                             uint8_t *array, int array_len) noexcept
{
    auto len = whole_item(*ptr, *data_len);
    if (!len || array_len < *len)
        return FALSE;
    if (*len != 0)
        memcpy(array, *ptr + kHeader, *len);
    consume(ptr, data_len, kHeader + *len);
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_skip_unknown_tlv(const uint8_t **ptr,
                                                         unsigned int *data_len) noexcept
{
    auto len = whole_item(*ptr, *data_len);
    if (!len)
        return FALSE;
    consume(ptr, data_len, kHeader + *len);
    return TRUE;
}

extern "C" QV_EXPORT boolean ipc_decode_skip_tlv_header(const uint8_t **ptr,
                                                        unsigned int *data_len) noexcept
{
    if (!whole_item(*ptr, *data_len))
        return FALSE;
    consume(ptr, data_len, kHeader);
    return TRUE;
}
