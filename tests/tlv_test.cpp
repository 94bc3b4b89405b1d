// TLV items: exact wire bytes of every encoder, each read back alone and
// from inside a container, every truncation refused unchanged.

#include <gtest/gtest.h>
#include <string.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "getput.h"

using Bytes = std::vector<uint8_t>;
// The bytes an encoder call writes; the cursor moves by the size returned.
#define ENC(call) encode([&](uint8_t **c) { return call; })
template <typename F> Bytes encode(F f)
{
    Bytes buf(70000);
    uint8_t *cp = buf.data();
    buf.resize(static_cast<size_t>(f(&cp))); // shrinking keeps the storage
    EXPECT_EQ(cp, buf.data() + buf.size());
    return buf;
}

enum Kind { V8, V16, V32, STR, ARR, STEP, SKIP, NKINDS };

// Decoder k at p over left bytes: the value's wire bytes (numbers put back
// big-endian), or nullopt on a refusal, which must change nothing.
static std::optional<std::string> decode(int k, const uint8_t *&p, long &left, int room = 512)
{
    const uint8_t *const p0 = p;
    int sn = static_cast<int>(left); // the unsigned decoders get it as unsigned
    auto *un = reinterpret_cast<unsigned int *>(&sn);
    uint8_t buf[512];
    uint16_t v16 = 0;
    uint32_t v32 = 0;
    uint8_t **mp = const_cast<uint8_t **>(&p);
    const bool ok = k == V8     ? ipc_decode_tlv_value8(mp, &sn, buf)
                    : k == V16  ? ipc_decode_tlv_value16(mp, &sn, &v16)
                    : k == V32  ? ipc_decode_tlv_value32(&p, &sn, &v32)
                    : k == STR  ? ipc_decode_tlv_string(&p, un, buf, room)
                    : k == ARR  ? ipc_decode_tlv_value_byte_array(&p, &sn, buf, room)
                    : k == STEP ? ipc_decode_skip_tlv_header(&p, un)
                                : ipc_decode_skip_unknown_tlv(&p, un);
    EXPECT_EQ(p - p0, left - sn) << "kind " << k;
    if (!ok) {
        EXPECT_EQ(p, p0) << "kind " << k;
    }
    left = sn;
    if (!ok)
        return std::nullopt;
    if (k == V16 || k == V32)
        k == V16 ? put_short(buf, v16) : put_long(buf, v32);
    const char *b = reinterpret_cast<char *>(buf);
    return std::string(b, k == STR ? strlen(b) : k == ARR ? p - p0 - 4 : k < STR ? 1 << k : 0);
}

// Every decoder on every cut of an item (exactly sized: overruns show): only
// the whole item is accepted, by the decoders its length fits, and consumed
// (stepping in, only its header); signed counts below zero are refused.
static void check_cuts(const Bytes &item)
{
    const size_t value = item.size() - 4;
    const bool fits[] = {value == 1, value == 2, value == 4, value < 512, value <= 512, true, true};
    for (size_t n = 0; n <= item.size(); n++) {
        const Bytes cut(item.begin(), item.begin() + static_cast<long>(n));
        uint16_t type = 0, len = 0;
        EXPECT_EQ(ipc_decode_tlv_header(cut.data(), static_cast<unsigned int>(n), &type, &len),
                  n >= 5);
        if (n >= 5) {
            EXPECT_EQ(type, get_short(&item[0]));
            EXPECT_EQ(len, value);
        }
        for (int k = 0; k < NKINDS; k++) {
            const uint8_t *p = cut.data();
            long left = static_cast<long>(n);
            bool whole = n == item.size() && fits[k];
            EXPECT_EQ(decode(k, p, left).has_value(), whole) << k << " " << n;
            EXPECT_EQ(left, !whole ? long(n) : k == STEP ? long(value) : 0) << k;
            EXPECT_FALSE(k != STR && k < STEP && decode(k, p = item.data(), left = -1)) << k;
        }
    }
}

TEST(Tlv, EveryItemExactOnTheWireAndReadBack)
{
    const char raw[] = {'\0', '\xff', 'x'};
    std::string text(300, 'q');
    std::vector<std::tuple<Bytes, Bytes, Kind>> cases = {
        {ENC(ipc_encode_tlv_value8(c, 0xa1b2, 0xf7)), {0xa1, 0xb2, 0, 1, 0xf7}, V8},
        {ENC(ipc_encode_tlv_value16(c, 0x0102, 0x0304)), {1, 2, 0, 2, 3, 4}, V16},
        {ENC(ipc_encode_tlv_value32(c, 7, 0x0a0b0c0d)), {0, 7, 0, 4, 0x0a, 0x0b, 0x0c, 0x0d}, V32},
        {ENC(ipc_encode_tlv_string(c, 0x0100, "abc")), {1, 0, 0, 3, 'a', 'b', 'c'}, STR},
        {ENC(ipc_encode_tlv_string(c, 9, "")), {0, 9, 0, 0}, STR},
        {ENC(ipc_encode_tlv_string(c, 9, nullptr)), {0, 9, 0, 0}, STR},
        {ENC(ipc_encode_tlv_byte_array(c, 0xff02, raw, 3)), {0xff, 2, 0, 3, 0, 0xff, 'x'}, ARR},
        {ENC(ipc_encode_tlv_string(c, 5, text.c_str())), {0, 5, 1, 0x2c}, STR},
    };
    Bytes &long_item = std::get<1>(cases.back());
    long_item.insert(long_item.end(), text.begin(), text.end());
    Bytes all;
    for (auto &[got, bytes, kind] : cases)
        all.insert(all.end(), bytes.begin(), bytes.end());
    // Each alone, and all as the value of one container, stepped into and
    // read with buffers of exactly their size (a string's with its NUL).
    const Bytes nest = ENC(ipc_encode_tlv_byte_array(c, 1, reinterpret_cast<char *>(all.data()),
                                                     static_cast<int>(all.size())));
    check_cuts(nest);
    const uint8_t *p = nest.data();
    long left = static_cast<long>(nest.size());
    EXPECT_EQ(decode(STEP, p, left), "");
    for (auto &[got, bytes, kind] : cases) {
        EXPECT_EQ(got, bytes);
        check_cuts(bytes);
        const std::string value(bytes.begin() + 4, bytes.end());
        const int room = static_cast<int>(value.size()) + (kind == STR);
        EXPECT_FALSE(kind >= STR && room > 0 && decode(kind, p, left, room - 1));
        EXPECT_EQ(decode(kind, p, left, room), value);
    }
    EXPECT_EQ(left, 0);

    // 65535 bytes fit the length field; one more is fatal.
    text.assign(65535, 'z');
    EXPECT_EQ(get_short(&ENC(ipc_encode_tlv_string(c, 1, text.c_str()))[2]), 0xffff);
    text.push_back('z');
    EXPECT_DEATH(ENC(ipc_encode_tlv_string(c, 1, text.c_str())), "len <= kMaxValue");
    EXPECT_DEATH(ENC(ipc_encode_tlv_byte_array(c, 1, "", -1)), "array_len >= 0");

    for (uint8_t buf[16], *b = buf; b < buf + 8; b++) { // byte order at any alignment
        EXPECT_EQ(put_short(put_long(b, 0xf1223344), 0xfe01), b + 6);
        EXPECT_EQ(Bytes(b, b + 6), (Bytes{0xf1, 0x22, 0x33, 0x44, 0xfe, 0x01}));
        EXPECT_EQ(get_long(b), 0xf1223344u);
        EXPECT_EQ(get_short(b + 4), 0xfe01);
    }
}
