// Event history: one seeded model of rings, repeats, take-backs and copies
// that fail, against a plain reference for contents and charged memory and,
// at the end, for both JSON forms member by member; the fatal checks.

#include <gtest/gtest.h>

#include <cjson/cJSON.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <regex>

#include "event_private.h"
#include "qv_test_util.h"

namespace
{

[[maybe_unused]] const bool initialised =
    (qvmodule_memory_init(), qvmodule_init(), evh_init(), true);

// Identifiers 6 and up have no name and show as their number.
const char *ev_name(event_id_t id)
{
    static const char *const names[] = {"UP", "DOWN", "FLAP", "AUTH", "LOST", "BACK"};
    return id < 6 ? names[id] : nullptr;
}

// The copy seam: fails one copy in fail_one_in (never at 0) and says so.
std::mt19937 rng(23);
unsigned fail_one_in = 0;
bool copied;
char *flaky_copy(qvmodule *tp, const char *s) noexcept
{
    copied = !(fail_one_in && rng() % fail_one_in == 0);
    return copied ? qvmodule_mem_strdup(tp, s) : nullptr;
}

// Hands text to call from a buffer overwritten afterwards, so the store
// must keep a copy; true unless the seam failed the copy.
template <class F> bool handed(const std::string &text, F call)
{
    static char buf[64];
    snprintf(buf, sizeof buf, "%s", text.c_str());
    copied = true;
    call(buf);
    memset(buf, '#', sizeof buf - 1);
    return copied;
}

struct Block {
    std::string heading; // empty when its copy failed
    std::vector<std::string> elements;
};
struct Ev {
    evh_event_t *e;
    event_id_t id;
    uint16_t count;
    std::vector<std::string> actions;
    std::vector<Block> blocks;
};
using Ring = std::deque<Ev>; // oldest first

// Bytes and allocations the ring's texts hold.
void add_texts(const Ring &ring, std::pair<uint32_t, uint32_t> &t)
{
    auto add = [&t](const std::string &s) { t.first += s.size() + 1, t.second++; };
    for (const Ev &ev : ring) {
        std::ranges::for_each(ev.actions, add);
        for (const Block &b : ev.blocks) {
            if (!b.heading.empty())
                add(b.heading);
            std::ranges::for_each(b.elements, add);
        }
    }
}

std::pair<uint32_t, uint32_t> charged() // bytes, allocations of "Event History"
{
    const qvmodule_mem_cookie_t *c = evh_qvmodule->qvmodule_mem_cookie;
    return c ? std::pair{c->tmc_n_bytes, c->tmc_n_alloc} : std::pair{0u, 0u};
}

// A ring as the display must show it: one line per member, objects as
// "key {" ... "}", time stamps without their value.
std::string render(const Ring &ring, bool ext, const std::string &in)
{
    std::string s = in + "Event History {\n", i1 = in + "  ", i2 = i1 + "  ", i3 = i2 + "  ";
    auto blocks = [&](const Ev &ev, const std::string &at) {
        for (const Block &b : ext ? ev.blocks : std::vector<Block>{}) {
            s += at + "Event {\n" + at + "  Heading=" + b.heading + "\n";
            for (const std::string &el : b.elements)
                s += at + "  Elements=" + el + "\n";
            s += at + "}\n";
        }
    };
    for (auto ev = ring.rbegin(); ev != ring.rend(); ++ev) {
        std::string name = ev_name(ev->id) ? ev_name(ev->id) : std::to_string(ev->id);
        s += i1 + "Event {\n" + i2 + "Timerstamp\n" + i2 + "Event ID=" + name +
             (ev->count ? "." + std::to_string(ev->count) : "") + "\n";
        if (ev->actions.empty())
            blocks(*ev, i2);
        else {
            s += i2 + "Action List {\n" + i3 + "Action=" + ev->actions[0] + "\n";
            blocks(*ev, i3);
            for (size_t a = 1; a < ev->actions.size(); a++)
                s += i3 + "Action=" + ev->actions[a] + "\n";
            s += i2 + "}\n";
        }
        s += i1 + "}\n";
    }
    return s + in + "}\n";
}

// Milliseconds of a time stamp such as " 1h: 1m: 1s .250".
long long age_ms(const std::string &t)
{
    static const std::regex form(
        "(?: (-?\\d+)d:)?(?: (-?\\d+)h:)?(?: (-?\\d+)m:)?(?: (-?\\d+)s )?\\.(-?\\d+)");
    const long long scale[] = {86400000, 3600000, 60000, 1000, 1};
    std::smatch m;
    EXPECT_TRUE(std::regex_match(t, m, form)) << t;
    long long ms = 0;
    for (size_t i = 1; i < m.size(); i++)
        ms += m[i].matched ? std::stoll(m[i].str()) * scale[i - 1] : 0;
    return ms;
}

// The members of a cJSON object in render's form; the ages of each
// "Event History" list go to ages.
void flatten(const cJSON *item, const std::string &in, std::string &s,
             std::vector<std::vector<long long>> &ages)
{
    for (const cJSON *c = item->child; c; c = c->next) {
        std::string key = c->string;
        if (key == "Event History")
            ages.emplace_back();
        if (cJSON_IsObject(c)) {
            s += in + key + " {\n";
            flatten(c, in + "  ", s, ages);
            s += in + "}\n";
        } else if (key == "Timerstamp") {
            s += in + key + "\n";
            ages.back().push_back(age_ms(c->valuestring));
        } else
            s += in + key + "=" + c->valuestring + "\n";
    }
}

long long usec(const utime_t &t)
{
    return t.ut_sec * 1000000LL + t.ut_usec;
}
long long ms(long long usec) // rounded down, as the display's pieces are
{
    return usec >= 0 ? usec / 1000 : -((999 - usec) / 1000);
}

// What fill adds to an empty object. Ages grow down each list; with base,
// the k-th event of a list was stamped k * 9000 s before base, and its age
// lies between those of clock readings taken around the call.
std::string shown(const std::function<void(cJSON *)> &fill, const utime_t *base = nullptr)
{
    cJSON *root = cJSON_CreateObject();
    utime_t before, after;
    qvmodule_get_current_utime(&before);
    fill(root);
    qvmodule_get_current_utime(&after);
    std::string s;
    std::vector<std::vector<long long>> ages;
    flatten(root, "", s, ages);
    cJSON_Delete(root);
    for (const auto &list : ages) {
        EXPECT_TRUE(std::ranges::is_sorted(list)) << "ages grow down the list\n" << s;
        for (long long k = 0; base && k < long(list.size()); k++) {
            EXPECT_GE(list[k], ms(usec(before) - usec(*base)) + k * 9000000);
            EXPECT_LE(list[k], ms(usec(after) - usec(*base)) + k * 9000000);
        }
    }
    return s;
}

} // namespace

TEST(EventHistory, RandomRecordingAgreesWithAReferenceAndShowsAsJson)
{
    qvmodule *store = evh_qvmodule;
    const unsigned pools = qvmodule_block_names.tb_n_alloc;
    evh_init(); // a second call changes nothing
    ASSERT_EQ(evh_qvmodule, store);
    ASSERT_EQ(qvmodule_block_names.tb_n_alloc, pools);
    ASSERT_STREQ(store->qvmodule_name, "Event History");

    evh_event_cb_t cb{ev_name};
    evh_module_t *mod = evh_register_cb("model", &cb);
    // Long names differ only past 128 characters; "idle" never has an event.
    const std::string p(150, 'p');
    std::map<std::string, std::pair<evh_object_t *, Ring>> objs;
    for (const std::string &name : {std::string("eth1"), std::string("eth0"), std::string("lo"),
                                    std::string("idle"), p + "2", p + "1"}) {
        evh_object_t *o = evh_object_add(mod, name.c_str()), *handle = o;
        ASSERT_EQ(evh_object_add(mod, name.c_str()), o);
        evh_object_delete(&handle);
        ASSERT_EQ(handle, nullptr);
        ASSERT_EQ(evh_object_lookup(mod, name.c_str()), o) << "still in the store";
        objs[name] = {o, {}};
    }
    ASSERT_EQ(evh_object_lookup(mod, p.c_str()), nullptr);
    const auto names = charged();

    // 40 events on eth0 first, so its ring wraps; then anything anywhere.
    evh_copy_text = flaky_copy, fail_one_in = 8;
    const std::string busy[] = {"eth0", "eth1", "lo", p + "1", p + "2"};
    for (int step = 0; step < 4000; step++) {
        auto &[o, ring] = objs[step < 40 ? "eth0" : busy[rng() % 5]];
        event_id_t id = step < 40 ? event_id_t(step) : rng() % 8;
        unsigned op = step < 40 ? 2 : rng() % 8;
        if (op == 0) { // a repeat counts on one of the three newest, newest first
            Ev *want = nullptr;
            for (size_t k = 0; k < std::min<size_t>(3, ring.size()) && !want; k++)
                want = ring.rbegin()[k].id == id ? &ring.rbegin()[k] : nullptr;
            ASSERT_EQ(evh_is_last_event_same(o, id), want ? want->e : nullptr);
            if (want)
                evh_inc_repeation_count(want->e), want->count++;
        } else {
            Ev ev{evh_event_new(o, id), id, 0, {}, {}};
            for (unsigned a = 0, n = rng() % 11; a < n; a++) {
                std::string t = "act" + std::to_string(rng() % 1000);
                if (handed(t, [&](char *s) { event_record_action(ev.e, s); }) &&
                    ev.actions.size() < 8)
                    ev.actions.push_back(t);
            }
            for (unsigned b = 0, n = rng() % 4; b < n; b++) {
                std::string h = "info" + std::to_string(b);
                evh_einfo_t *ei;
                bool kept = handed(h, [&](char *s) { ei = evh_einfo_new(ev.e, s); });
                ASSERT_EQ(ei == nullptr, ev.blocks.size() == 2);
                if (ei)
                    ev.blocks.push_back({kept ? h : "", {}});
                for (unsigned i = 0, m = ei ? rng() % 19 : 0; i < m; i++) {
                    std::string t = "el" + std::to_string(i);
                    if (handed(t, [&](char *s) { event_record_einfo(ei, s); }) &&
                        ev.blocks.back().elements.size() < 16)
                        ev.blocks.back().elements.push_back(t);
                }
            }
            ring.push_back(ev);
            if (ring.size() > 15)
                ring.pop_front();
            if (op == 1) // taken back: what it pushed out stays gone
                evh_event_release_last(o, ev.e), ring.pop_back();
        }
        // The store as its display shows it, and the memory of every ring.
        ASSERT_EQ(shown([&](cJSON *r) { event_show(r, mod, o, TRUE); }),
                  ring.empty() ? "" : render(ring, true, ""))
            << "at step " << step;
        ASSERT_EQ(std::count(o->obj_event, o->obj_event + 16, nullptr), 16 - long(ring.size()));
        auto texts = names;
        for (const auto &[name, obj] : objs)
            add_texts(obj.second, texts);
        ASSERT_EQ(charged(), texts) << "at step " << step;
    }
    evh_copy_text = qvmodule_mem_strdup;

    // eth0's newest event counted 65536 more times is back at its count.
    ASSERT_FALSE(objs["eth0"].second.empty());
    for (int i = 0; i < 65536; i++)
        evh_inc_repeation_count(objs["eth0"].second.back().e);
    // Stamps 9000 s apart, so that ages run to days; the newest are 100 s
    // ahead of the clock, as after the clock was set back.
    utime_t base;
    qvmodule_get_current_utime(&base);
    base.ut_sec += 100;
    for (auto &[name, obj] : objs)
        for (size_t k = 0; k < obj.second.size(); k++)
            obj.second.rbegin()[k].e->event_when_utime = {base.ut_sec - int32_t(k * 9000),
                                                          base.ut_usec};
    for (boolean ext : {FALSE, TRUE}) {
        std::string all, peers;
        for (const auto &[name, obj] : objs) {
            std::string body = obj.second.empty() ? "" : render(obj.second, ext, "  ");
            all += name + " {\n" + body + "}\n", peers += "Peer {\n" + body + "}\n";
        }
        auto [eth0, eth0_ring] = objs["eth0"];
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, nullptr, nullptr, ext); }, &base),
                  all);
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, nullptr, "Peer", ext); }), peers);
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, "eth0", nullptr, ext); }),
                  "eth0 {\n" + render(eth0_ring, ext, "  ") + "}\n");
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, "idle", "Peer", ext); }),
                  "Peer {\n}\n");
        EXPECT_EQ(shown([&](cJSON *r) { event_show(r, mod, eth0, ext); }, &base),
                  render(eth0_ring, ext, ""));
        for (evh_object_t *o : {objs["idle"].first, (evh_object_t *)nullptr})
            EXPECT_EQ(shown([&](cJSON *r) { event_show(r, mod, o, ext); }), "");
        EXPECT_EQ(shown([&](cJSON *r) { event_show(r, nullptr, eth0, ext); }), "");
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, "nosuch", "Peer", ext); }), "");
    }

    // Fifteen bare events push every text out of every ring.
    for (auto &[name, obj] : objs)
        for (int i = 0; i < 15; i++)
            evh_event_new(obj.first, 0);
    EXPECT_EQ(charged(), names);
}

TEST(EventHistoryDeathTest, BrokenRingsAndMisuseAreFatal)
{
    evh_event_cb_t cb{ev_name};
    evh_module_t *mod = evh_register_cb("fatal", &cb);
    evh_object_t *o = evh_object_add(mod, "obj");
    evh_event_t *e = evh_event_new(o, 1);
    event_record_action(e, "a");
    event_record_einfo(evh_einfo_new(e, "h"), "x");
    auto no_copy = [](qvmodule *, const char *) noexcept -> char * { return nullptr; };
    const struct {
        const char *func, *text;
        std::function<void()> misuse;
    } cases[] = {
        {"evh_event_enqueue", "(write_index >= 0) && (write_index < 16)",
         [&] { o->obj_next_event_write_index = 16, evh_event_new(o, 2); }},
        {"evh_event_enqueue", "!obj->obj_event[write_index]",
         [&] { o->obj_event[1] = e, evh_event_new(o, 2); }},
        {"evh_object_write_index_increment",
         "obj->obj_next_event_write_index == (obj->obj_first_event_read_index - 1)",
         [&] {
             o->obj_event[0] = nullptr, o->obj_first_event_read_index = 5, evh_event_new(o, 2);
         }},
        {"evh_event_release_last", "obj->obj_event[last_index] == event",
         [&] { evh_event_new(o, 2), evh_event_release_last(o, e); }},
        {"evh_event_release_last", "evh_event_dec_ref_count(event)",
         [&] { e->event_ref_count = 2, evh_event_release_last(o, e); }},
        {"evh_event_dec_ref_count", "event->event_ref_count",
         [&] { e->event_ref_count = 0, evh_event_release_last(o, e); }},
        {"evh_event_dec_ref_count", "event",
         [&] { evh_event_release_last(o, e), evh_event_release_last(o, nullptr); }},
        {"evh_event_free", "event->event_action[i]",
         [&] { e->event_action[0] = nullptr, evh_event_release_last(o, e); }},
        {"evh_einfo_free", "einfo->einfo_elements[i]",
         [&] { e->event_info[0]->einfo_elements[0] = nullptr, evh_event_release_last(o, e); }},
        {"event_show_ring", "obj->obj_event[write_index]",
         [&] {
             o->obj_next_event_write_index = 2, event_show(cJSON_CreateObject(), mod, o, TRUE);
         }},
        {"evh_object_add", "obj->obj_name",
         [&] { evh_copy_text = no_copy, evh_object_add(mod, "n"); }},
        {"evh_register_cb", "module->mod_name",
         [&] { evh_copy_text = no_copy, evh_register_cb("n", &cb); }},
    };
    for (const auto &c : cases)
        EXPECT_DEATH(c.misuse(),
                     qvtest::fatal_re(std::string("event(_ui)?\\.cpp:") + c.func, c.text));
}
