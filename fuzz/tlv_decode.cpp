// Walks arbitrary bytes as a TLV message. At every position each decoder
// is tried against an independent statement of its acceptance rule; one of
// them (picked by the item's type, so the fuzzer can steer) then moves the
// walk on, stepping into nested items. A refusal that moved anything, a
// wrong consumption or a re-encoding that differs from the bytes consumed
// aborts.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "getput.h"

#include "fuzz_check.h"

namespace
{

constexpr int kMaxDepth = 8;
constexpr int kBufLen = 300;

struct Cursor {
    const uint8_t *p;
    unsigned int left;
};

// The length field, when the header can be read at all.
int length_field(const Cursor &c)
{
    return c.left >= 4 ? get_short(c.p + 2) : -1;
}

// What the decoder did to a copy of the cursor: refused with nothing
// changed, or consumed exactly want bytes.
void expect_outcome(const Cursor &before, const Cursor &after, bool ok, bool want_ok,
                    unsigned int want)
{
    FUZZ_CHECK(ok == want_ok);
    unsigned int used = ok ? want : 0;
    FUZZ_CHECK(after.p == before.p + used);
    FUZZ_CHECK(after.left == before.left - used);
}

// The bytes consumed must be what the encoder writes for the value read.
template <typename Enc> void expect_reencodes(const Cursor &at, unsigned int n, Enc &&enc)
{
    uint8_t out[kBufLen + 8];
    uint8_t *w = out;
    int size = enc(&w, get_short(at.p));
    FUZZ_CHECK(size == static_cast<int>(n) && w == out + n);
    FUZZ_CHECK(memcmp(out, at.p, n) == 0);
}

template <int Size, typename V, typename Ptr, typename Dec, typename Enc>
void check_fixed(const Cursor &c, Dec &&dec, Enc &&enc)
{
    Cursor a = c;
    int n = static_cast<int>(c.left);
    V v = 0;
    bool ok = dec(const_cast<Ptr>(&a.p), &n, &v);
    a.left = static_cast<unsigned int>(n);
    expect_outcome(c, a, ok, c.left >= Size + 4u && length_field(c) == Size, Size + 4);
    if (ok)
        expect_reencodes(c, Size + 4, [&](uint8_t **w, uint16_t t) { return enc(w, t, v); });
}

// Every decoder on a copy of the cursor, against its rule.
void check_all(const Cursor &c, int buf_len)
{
    int len = length_field(c);
    bool whole = len >= 0 && c.left >= static_cast<unsigned int>(len) + 4;

    uint16_t type, tlen;
    bool ok = ipc_decode_tlv_header(c.p, c.left, &type, &tlen);
    FUZZ_CHECK(ok == (c.left >= 5));
    FUZZ_CHECK(!ok || (type == get_short(c.p) && tlen == len));

    check_fixed<1, uint8_t, uint8_t **>(c, ipc_decode_tlv_value8, ipc_encode_tlv_value8);
    check_fixed<2, uint16_t, uint8_t **>(c, ipc_decode_tlv_value16, ipc_encode_tlv_value16);
    check_fixed<4, uint32_t, const uint8_t **>(c, ipc_decode_tlv_value32, ipc_encode_tlv_value32);

    uint8_t buf[kBufLen];
    memset(buf, 0xa5, sizeof buf);
    Cursor a = c;
    ok = ipc_decode_tlv_string(&a.p, &a.left, buf, buf_len);
    expect_outcome(c, a, ok, whole && buf_len >= len + 1, len + 4);
    if (ok) {
        FUZZ_CHECK(buf[len] == '\0' && memcmp(buf, c.p + 4, len) == 0);
        // The value may hold NUL bytes, which a string cannot re-encode.
        expect_reencodes(c, len + 4, [&](uint8_t **w, uint16_t t) {
            return ipc_encode_tlv_byte_array(w, t, reinterpret_cast<char *>(buf), len);
        });
    }

    a = c;
    int n = static_cast<int>(c.left);
    ok = ipc_decode_tlv_value_byte_array(&a.p, &n, buf, buf_len);
    a.left = static_cast<unsigned int>(n);
    expect_outcome(c, a, ok, whole && buf_len >= len, len + 4);
    if (ok)
        FUZZ_CHECK(memcmp(buf, c.p + 4, len) == 0);

    a = c;
    ok = ipc_decode_skip_unknown_tlv(&a.p, &a.left);
    expect_outcome(c, a, ok, whole, len + 4);

    a = c;
    ok = ipc_decode_skip_tlv_header(&a.p, &a.left);
    expect_outcome(c, a, ok, whole, 4);
}

// Walks c to its end; a refused item is passed over one byte at a time.
void walk(Cursor c, int depth)
{
    while (c.left > 0) {
        uint16_t type = c.left >= 2 ? get_short(c.p) : c.p[0];
        int buf_len = type % (kBufLen + 1);
        check_all(c, buf_len);

        Cursor a = c;
        int n = static_cast<int>(c.left);
        bool ok = false;
        union {
            uint8_t v8;
            uint16_t v16;
            uint32_t v32;
            uint8_t buf[kBufLen];
        } out;
        switch (type % 7) {
        case 0:
            ok = ipc_decode_tlv_value8(const_cast<uint8_t **>(&a.p), &n, &out.v8);
            break;
        case 1:
            ok = ipc_decode_tlv_value16(const_cast<uint8_t **>(&a.p), &n, &out.v16);
            break;
        case 2:
            ok = ipc_decode_tlv_value32(&a.p, &n, &out.v32);
            break;
        case 3:
            ok = ipc_decode_tlv_value_byte_array(&a.p, &n, out.buf, buf_len);
            break;
        case 4:
            ok = ipc_decode_tlv_string(&a.p, &a.left, out.buf, buf_len);
            n = static_cast<int>(a.left);
            break;
        case 5:
            ok = ipc_decode_skip_unknown_tlv(&a.p, &a.left);
            n = static_cast<int>(a.left);
            break;
        case 6:
            if (depth < kMaxDepth && ipc_decode_skip_tlv_header(&a.p, &a.left)) {
                unsigned int inner = get_short(c.p + 2);
                walk(Cursor{a.p, inner}, depth + 1);
                a.p += inner;
                a.left -= inner;
                ok = true;
            }
            n = static_cast<int>(a.left);
            break;
        }
        a.left = static_cast<unsigned int>(n);
        if (!ok) {
            a.p = c.p + 1;
            a.left = c.left - 1;
        }
        FUZZ_CHECK(a.p > c.p && a.p + a.left == c.p + c.left);
        c = a;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Counts are int for some decoders: keep to what fits.
    if (size > 0x7fffffff)
        return 0;
    walk(Cursor{data, static_cast<unsigned int>(size)}, 0);
    return 0;
}
