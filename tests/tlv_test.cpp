// TLV items: exact wire bytes, byte-order helpers at every alignment,
// random nested messages encoded and walked back, and every truncation of
// every kind of item refused without moving the cursor.

#include <gtest/gtest.h>
#include <string.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

#include "getput.h"

namespace
{

using Bytes = std::vector<uint8_t>;

template <typename F> Bytes encode(F &&f, int expect_size)
{
    Bytes buf(70000, 0xee);
    uint8_t *cp = buf.data();
    int n = f(&cp);
    EXPECT_EQ(n, expect_size);
    EXPECT_EQ(cp - buf.data(), n);
    buf.resize(static_cast<size_t>(n));
    return buf;
}

TEST(Tlv, EncodersWriteBigEndianItems)
{
    EXPECT_EQ(encode([](uint8_t **c) { return ipc_encode_tlv_value8(c, 0xa1b2, 0x7f); }, 5),
              (Bytes{0xa1, 0xb2, 0x00, 0x01, 0x7f}));
    EXPECT_EQ(encode([](uint8_t **c) { return ipc_encode_tlv_value16(c, 0x0102, 0x0304); }, 6),
              (Bytes{0x01, 0x02, 0x00, 0x02, 0x03, 0x04}));
    EXPECT_EQ(encode([](uint8_t **c) { return ipc_encode_tlv_value32(c, 7, 0x0a0b0c0d); }, 8),
              (Bytes{0x00, 0x07, 0x00, 0x04, 0x0a, 0x0b, 0x0c, 0x0d}));
    EXPECT_EQ(encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 0x0100, "abc"); }, 7),
              (Bytes{0x01, 0x00, 0x00, 0x03, 'a', 'b', 'c'}));
    EXPECT_EQ(encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 9, ""); }, 4),
              (Bytes{0x00, 0x09, 0x00, 0x00}));
    EXPECT_EQ(encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 9, nullptr); }, 4),
              (Bytes{0x00, 0x09, 0x00, 0x00}));
    const char raw[] = {'\0', '\xff', 'x'};
    EXPECT_EQ(encode([&](uint8_t **c) { return ipc_encode_tlv_byte_array(c, 2, raw, 3); }, 7),
              (Bytes{0x00, 0x02, 0x00, 0x03, 0x00, 0xff, 'x'}));

    std::string longest(65535, 'z');
    Bytes big = encode([&](uint8_t **c) { return ipc_encode_tlv_string(c, 1, longest.c_str()); },
                       4 + 65535);
    EXPECT_EQ(get_short(&big[2]), 0xffff);
}

TEST(TlvDeathTest, OversizedValueIsFatal)
{
    std::string too_long(65536, 'z');
    Bytes buf(70000);
    uint8_t *cp = buf.data();
    EXPECT_DEATH(ipc_encode_tlv_string(&cp, 1, too_long.c_str()), "len <= kMaxValue");
    EXPECT_DEATH(ipc_encode_tlv_byte_array(&cp, 1, too_long.data(), -1), "array_len >= 0");
}

TEST(Tlv, ByteOrderHelpersAtEveryAlignment)
{
    for (size_t off = 0; off < 8; off++) {
        uint8_t buf[16] = {};
        uint8_t *end = put_long(buf + off, 0x11223344);
        EXPECT_EQ(end, buf + off + 4);
        EXPECT_EQ(Bytes(buf + off, end), (Bytes{0x11, 0x22, 0x33, 0x44}));
        EXPECT_EQ(get_long(buf + off), 0x11223344u);
        end = put_short(buf + off, 0xfe01);
        EXPECT_EQ(end, buf + off + 2);
        EXPECT_EQ(buf[off], 0xfe);
        EXPECT_EQ(get_short(buf + off), 0xfe01);
    }
    uint8_t hi[4] = {0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(get_long(hi), 0xffffffffu);
    EXPECT_EQ(get_short(hi), 0xffff);
}

// Decoding state of one cursor; the fixed-size decoders of 8 and 16 bits
// take a non-const cursor, the others a const one.
struct Cursor {
    const uint8_t *p;
    unsigned int left;
    uint8_t **mut() { return const_cast<uint8_t **>(&p); }
};

TEST(Tlv, EdgeCases)
{
    // Header: a complete empty item of 4 bytes is still refused.
    Bytes empty = encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 3, ""); }, 4);
    uint16_t type = 0, len = 0;
    EXPECT_FALSE(ipc_decode_tlv_header(empty.data(), 4, &type, &len));
    empty.push_back(0);
    EXPECT_TRUE(ipc_decode_tlv_header(empty.data(), 5, &type, &len));
    EXPECT_EQ(type, 3);
    EXPECT_EQ(len, 0);

    // The empty string fits a buffer of one byte and consumes its header.
    const uint8_t *p = empty.data();
    unsigned int left = 5;
    uint8_t s[1] = {'x'};
    EXPECT_TRUE(ipc_decode_tlv_string(&p, &left, s, 1));
    EXPECT_EQ(s[0], '\0');
    EXPECT_EQ(p, empty.data() + 4);
    EXPECT_EQ(left, 1u);

    // value8 wants a length field of exactly 1.
    Bytes two = encode([](uint8_t **c) { return ipc_encode_tlv_value16(c, 1, 5); }, 6);
    uint8_t *mp = two.data();
    int sleft = 6;
    uint8_t v8 = 0x55;
    EXPECT_FALSE(ipc_decode_tlv_value8(&mp, &sleft, &v8));
    EXPECT_EQ(v8, 0x55);
    Bytes one = encode([](uint8_t **c) { return ipc_encode_tlv_value8(c, 1, 5); }, 5);
    mp = one.data();
    sleft = 4;
    EXPECT_FALSE(ipc_decode_tlv_value8(&mp, &sleft, &v8));
    EXPECT_EQ(mp, one.data());
    EXPECT_EQ(sleft, 4);

    // A string buffer must hold the terminator as well.
    Bytes abc = encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 1, "abc"); }, 7);
    p = abc.data();
    left = 7;
    uint8_t sbuf[4];
    EXPECT_FALSE(ipc_decode_tlv_string(&p, &left, sbuf, 3));
    EXPECT_TRUE(ipc_decode_tlv_string(&p, &left, sbuf, 4));
    EXPECT_STREQ(reinterpret_cast<char *>(sbuf), "abc");

    // A byte array needs exactly its length, no terminator.
    p = abc.data();
    int ileft = 7;
    EXPECT_FALSE(ipc_decode_tlv_value_byte_array(&p, &ileft, sbuf, 2));
    EXPECT_TRUE(ipc_decode_tlv_value_byte_array(&p, &ileft, sbuf, 3));
    EXPECT_EQ(ileft, 0);

    // Stepping into an item wants the whole item although it takes 4 bytes.
    p = abc.data();
    left = 6;
    EXPECT_FALSE(ipc_decode_skip_tlv_header(&p, &left));
    left = 7;
    EXPECT_TRUE(ipc_decode_skip_tlv_header(&p, &left));
    EXPECT_EQ(p, abc.data() + 4);
    EXPECT_EQ(left, 3u);
}

TEST(Tlv, SignedCountsBelowZeroAreRefused)
{
    Bytes msg = encode([](uint8_t **c) { return ipc_encode_tlv_value32(c, 1, 9); }, 8);
    Cursor c{msg.data(), 0};
    int neg = -1;
    uint8_t v8;
    uint16_t v16;
    uint32_t v32;
    uint8_t arr[8];
    EXPECT_FALSE(ipc_decode_tlv_value8(c.mut(), &neg, &v8));
    EXPECT_FALSE(ipc_decode_tlv_value16(c.mut(), &neg, &v16));
    EXPECT_FALSE(ipc_decode_tlv_value32(&c.p, &neg, &v32));
    EXPECT_FALSE(ipc_decode_tlv_value_byte_array(&c.p, &neg, arr, 8));
    EXPECT_EQ(neg, -1);
    EXPECT_EQ(c.p, msg.data());
    // A value decoder does not look at the type: any type reads as 32 bits.
    int n = 8;
    EXPECT_TRUE(ipc_decode_tlv_value32(&c.p, &n, &v32));
    EXPECT_EQ(v32, 9u);
}

// A random message: leaves of every kind, and containers whose value is a
// sequence of items.
struct Item {
    enum Kind { V8, V16, V32, STR, BYTES, NEST } kind = V8;
    uint16_t type = 0;
    uint32_t num = 0;
    std::string text;
    std::vector<Item> kids;
};

Item random_item(std::mt19937 &rng, int depth)
{
    Item it;
    it.kind = static_cast<Item::Kind>(rng() % (depth < 3 ? 6 : 5));
    it.type = static_cast<uint16_t>(rng());
    switch (it.kind) {
    case Item::V8:
    case Item::V16:
    case Item::V32:
        it.num = rng() & (it.kind == Item::V8 ? 0xff : it.kind == Item::V16 ? 0xffff : ~0u);
        break;
    case Item::STR:
        for (unsigned i = rng() % 20; i > 0; i--)
            it.text.push_back(static_cast<char>('a' + rng() % 26));
        break;
    case Item::BYTES:
        for (unsigned i = rng() % 20; i > 0; i--)
            it.text.push_back(static_cast<char>(rng()));
        break;
    case Item::NEST:
        for (unsigned i = rng() % 5; i > 0; i--)
            it.kids.push_back(random_item(rng, depth + 1));
        break;
    }
    return it;
}

int encode_item(uint8_t **cp, const Item &it)
{
    switch (it.kind) {
    case Item::V8:
        return ipc_encode_tlv_value8(cp, it.type, static_cast<uint8_t>(it.num));
    case Item::V16:
        return ipc_encode_tlv_value16(cp, it.type, static_cast<uint16_t>(it.num));
    case Item::V32:
        return ipc_encode_tlv_value32(cp, it.type, it.num);
    case Item::STR:
        return ipc_encode_tlv_string(cp, it.type, it.text.c_str());
    case Item::BYTES:
        return ipc_encode_tlv_byte_array(cp, it.type, it.text.data(),
                                         static_cast<int>(it.text.size()));
    case Item::NEST: {
        Bytes inner(65536);
        uint8_t *ip = inner.data();
        for (const Item &k : it.kids)
            encode_item(&ip, k);
        return ipc_encode_tlv_byte_array(cp, it.type, reinterpret_cast<char *>(inner.data()),
                                         static_cast<int>(ip - inner.data()));
    }
    }
    return -1;
}

size_t item_size(const Item &it)
{
    size_t n = 4;
    switch (it.kind) {
    case Item::V8:
        return n + 1;
    case Item::V16:
        return n + 2;
    case Item::V32:
        return n + 4;
    case Item::STR:
    case Item::BYTES:
        return n + it.text.size();
    case Item::NEST:
        for (const Item &k : it.kids)
            n += item_size(k);
        return n;
    }
    return 0;
}

// Decodes one item as its kind says, checking value and cursor movement;
// nested items are stepped into and walked.
void decode_item(Cursor &c, const Item &it)
{
    SCOPED_TRACE(testing::Message() << "kind " << it.kind << " type " << it.type);
    const uint8_t *start = c.p;
    unsigned int left = c.left;
    uint16_t type = 0, len = 0;
    if (c.left >= 5) {
        ASSERT_TRUE(ipc_decode_tlv_header(c.p, c.left, &type, &len));
        EXPECT_EQ(type, it.type);
        EXPECT_EQ(len + 4u, item_size(it));
    }
    int sleft = static_cast<int>(c.left);
    uint8_t v8;
    uint16_t v16;
    uint32_t v32;
    uint8_t buf[32];
    switch (it.kind) {
    case Item::V8:
        ASSERT_TRUE(ipc_decode_tlv_value8(c.mut(), &sleft, &v8));
        EXPECT_EQ(v8, it.num);
        break;
    case Item::V16:
        ASSERT_TRUE(ipc_decode_tlv_value16(c.mut(), &sleft, &v16));
        EXPECT_EQ(v16, it.num);
        break;
    case Item::V32:
        ASSERT_TRUE(ipc_decode_tlv_value32(&c.p, &sleft, &v32));
        EXPECT_EQ(v32, it.num);
        break;
    case Item::STR:
        ASSERT_TRUE(ipc_decode_tlv_string(&c.p, &c.left, buf, sizeof buf));
        EXPECT_EQ(reinterpret_cast<char *>(buf), it.text);
        sleft = static_cast<int>(c.left);
        break;
    case Item::BYTES:
        ASSERT_TRUE(ipc_decode_tlv_value_byte_array(&c.p, &sleft, buf, sizeof buf));
        EXPECT_EQ(std::string(reinterpret_cast<char *>(buf), it.text.size()), it.text);
        break;
    case Item::NEST: {
        ASSERT_TRUE(ipc_decode_skip_tlv_header(&c.p, &c.left));
        Cursor inner{c.p, static_cast<unsigned int>(item_size(it) - 4)};
        for (const Item &k : it.kids)
            decode_item(inner, k);
        EXPECT_EQ(inner.left, 0u);
        c.p = inner.p;
        c.left -= static_cast<unsigned int>(item_size(it) - 4);
        sleft = static_cast<int>(c.left);
        break;
    }
    }
    c.left = static_cast<unsigned int>(sleft);
    EXPECT_EQ(c.p, start + item_size(it));
    EXPECT_EQ(c.left, left - item_size(it));
}

TEST(Tlv, RandomNestedMessagesRoundTrip)
{
    std::mt19937 rng(20240601);
    for (int round = 0; round < 300; round++) {
        std::vector<Item> items;
        for (unsigned i = 1 + rng() % 8; i > 0; i--)
            items.push_back(random_item(rng, 0));
        Bytes msg(200000);
        uint8_t *cp = msg.data();
        size_t total = 0;
        for (const Item &it : items) {
            EXPECT_EQ(static_cast<size_t>(encode_item(&cp, it)), item_size(it));
            total += item_size(it);
        }
        ASSERT_EQ(static_cast<size_t>(cp - msg.data()), total);
        msg.resize(total);

        Cursor c{msg.data(), static_cast<unsigned int>(total)};
        for (const Item &it : items)
            decode_item(c, it);
        EXPECT_EQ(c.left, 0u);

        // Skipping whole items walks the same boundaries.
        Cursor s{msg.data(), static_cast<unsigned int>(total)};
        for (const Item &it : items) {
            const uint8_t *before = s.p;
            ASSERT_TRUE(ipc_decode_skip_unknown_tlv(&s.p, &s.left));
            EXPECT_EQ(s.p, before + item_size(it));
        }
        EXPECT_EQ(s.left, 0u);
        EXPECT_FALSE(ipc_decode_skip_unknown_tlv(&s.p, &s.left));
    }
}

// Every decoder on a message of exactly n bytes: true when it accepted,
// and on refusal cursor and count must be unchanged.
struct Outcome {
    bool v8, v16, v32, str, arr, skip, step;
};

Outcome try_all(const Bytes &msg)
{
    Outcome o{};
    uint8_t v8;
    uint16_t v16;
    uint32_t v32;
    uint8_t buf[64];
    auto check_signed = [&](auto fn) {
        Cursor c{msg.data(), 0};
        int n = static_cast<int>(msg.size());
        bool ok = fn(c, n);
        if (!ok) {
            EXPECT_EQ(c.p, msg.data());
            EXPECT_EQ(n, static_cast<int>(msg.size()));
        }
        return ok;
    };
    auto check_unsigned = [&](auto fn) {
        Cursor c{msg.data(), static_cast<unsigned int>(msg.size())};
        bool ok = fn(c);
        if (!ok) {
            EXPECT_EQ(c.p, msg.data());
            EXPECT_EQ(c.left, msg.size());
        }
        return ok;
    };
    o.v8 = check_signed([&](Cursor &c, int &n) { return ipc_decode_tlv_value8(c.mut(), &n, &v8); });
    o.v16 =
        check_signed([&](Cursor &c, int &n) { return ipc_decode_tlv_value16(c.mut(), &n, &v16); });
    o.v32 = check_signed([&](Cursor &c, int &n) { return ipc_decode_tlv_value32(&c.p, &n, &v32); });
    o.arr = check_signed([&](Cursor &c, int &n) {
        return ipc_decode_tlv_value_byte_array(&c.p, &n, buf, sizeof buf);
    });
    o.str = check_unsigned(
        [&](Cursor &c) { return ipc_decode_tlv_string(&c.p, &c.left, buf, sizeof buf); });
    o.skip = check_unsigned([&](Cursor &c) { return ipc_decode_skip_unknown_tlv(&c.p, &c.left); });
    o.step = check_unsigned([&](Cursor &c) { return ipc_decode_skip_tlv_header(&c.p, &c.left); });
    return o;
}

TEST(Tlv, EveryTruncationIsRefusedUnchanged)
{
    std::vector<std::pair<const char *, Bytes>> items = {
        {"value8", encode([](uint8_t **c) { return ipc_encode_tlv_value8(c, 1, 2); }, 5)},
        {"value16", encode([](uint8_t **c) { return ipc_encode_tlv_value16(c, 1, 2); }, 6)},
        {"value32", encode([](uint8_t **c) { return ipc_encode_tlv_value32(c, 1, 2); }, 8)},
        {"string", encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 1, "hello"); }, 9)},
        {"empty", encode([](uint8_t **c) { return ipc_encode_tlv_string(c, 1, ""); }, 4)},
        {"nested", encode(
                       [](uint8_t **c) {
                           uint8_t inner[16], *ip = inner;
                           ipc_encode_tlv_value8(&ip, 2, 3);
                           ipc_encode_tlv_string(&ip, 4, "");
                           return ipc_encode_tlv_byte_array(c, 1, reinterpret_cast<char *>(inner),
                                                            static_cast<int>(ip - inner));
                       },
                       13)},
    };
    for (auto &[name, whole] : items) {
        SCOPED_TRACE(name);
        for (size_t n = 0; n < whole.size(); n++) {
            SCOPED_TRACE(n);
            // An exactly sized copy, so that a read past the end is a real
            // overrun under the sanitizers.
            Bytes cut(whole.begin(), whole.begin() + static_cast<long>(n));
            Outcome o = try_all(cut);
            EXPECT_FALSE(o.v8 || o.v16 || o.v32 || o.str || o.arr || o.skip || o.step);
        }
        Outcome o = try_all(whole);
        size_t value = whole.size() - 4;
        EXPECT_EQ(o.v8, value == 1);
        EXPECT_EQ(o.v16, value == 2);
        EXPECT_EQ(o.v32, value == 4);
        EXPECT_TRUE(o.str && o.arr && o.skip && o.step);
    }
}

} // namespace
