// Layer-2 addresses and their text form. The parser mirrors the rules
// daemons have always relied on: it looks at no more than 17 characters,
// takes the first two characters of each ":"-separated field and ignores
// the rest of a field and anything after the sixth pair.

#include <stdio.h>
#include <string.h>

#include <string_view>

#include "qvsockaddr_l2addr.h"

static_assert(sizeof(l2_addr_t) == L2_ADDR_LEN && alignof(l2_addr_t) == 1,
              "an address is six raw octets that may sit anywhere");

namespace
{

constexpr size_t kTextLen = 17;
// Every call writes here: the text form or "NULL MAC", terminated.
char l2_str_buf[21];

int convert_alphanum_to_hex(char a)
{
    if (a >= '0' && a <= '9')
        return a - '0';
    if (a >= 'a' && a <= 'f')
        return a - 'a' + 10;
    if (a >= 'A' && a <= 'F')
        return a - 'A' + 10;
    return -1;
}

// The octet spelt by the first two characters of field, or -1.
int field_octet(std::string_view field)
{
    if (field.size() < 2)
        return -1;
    int hi = convert_alphanum_to_hex(field[0]);
    int lo = convert_alphanum_to_hex(field[1]);
    if (hi < 0 || lo < 0)
        return -1;
    return hi * 16 + lo;
}

} // namespace

extern "C" QV_EXPORT void l2_addr_copy(l2_addr_t *dest, const l2_addr_t *src) noexcept
{
    memcpy(dest->addr, src->addr, L2_ADDR_LEN);
}

extern "C" QV_EXPORT boolean l2_addr_is_null(const l2_addr_t *mac) noexcept
{
    static const l2_addr_t zero{};
    return mac == nullptr || memcmp(mac->addr, zero.addr, L2_ADDR_LEN) == 0;
}

extern "C" QV_EXPORT boolean l2_addr_is_multicast(const l2_addr_t *mac) noexcept
{
    return mac != nullptr && (mac->addr[0] & 0x01) != 0;
}

extern "C" QV_EXPORT int l2_addr_cmp(const l2_addr_t *dest, const l2_addr_t *src) noexcept
{
    // A missing address sorts first so that zero still means equal and
    // the order stays total for callers that sort with it.
    if (dest == nullptr || src == nullptr)
        return (dest != nullptr) - (src != nullptr);
    return memcmp(dest->addr, src->addr, L2_ADDR_LEN);
}

extern "C" QV_EXPORT char *l2_addr_to_str(const l2_addr_t *mac) noexcept
{
    if (mac == nullptr) {
        snprintf(l2_str_buf, sizeof l2_str_buf, "NULL MAC");
        return l2_str_buf;
    }
    const uint8_t *a = mac->addr;
    snprintf(l2_str_buf, 20, "%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
    return l2_str_buf;
}

extern "C" QV_EXPORT boolean l2_addr_string_to_addr(const char *s, l2_addr_t *out) noexcept
{
    if (s == nullptr || out == nullptr)
        return FALSE;
    std::string_view rest(s, strnlen(s, kTextLen));
    for (int i = 0; i < L2_ADDR_LEN - 1; i++) {
        size_t colon = rest.find(':');
        if (colon == std::string_view::npos)
            return FALSE;
        int octet = field_octet(rest.substr(0, colon));
        if (octet < 0)
            return FALSE;
        out->addr[i] = static_cast<uint8_t>(octet);
        rest.remove_prefix(colon + 1);
    }
    int octet = field_octet(rest);
    if (octet < 0)
        return FALSE;
    out->addr[L2_ADDR_LEN - 1] = static_cast<uint8_t>(octet);
    return TRUE;
}

extern "C" QV_EXPORT boolean l2_addr_valid_learn(char *mac) noexcept
{
    const auto *a = reinterpret_cast<const l2_addr_t *>(mac);
    return a != nullptr && !l2_addr_is_null(a) && !l2_addr_is_multicast(a);
}
