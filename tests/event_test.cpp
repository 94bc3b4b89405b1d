// Event history: one seeded model of rings, repeats, take-backs and copies
// that fail, checked against a plain reference for contents and charged
// memory and, at the end, for both JSON forms member by member; the ring's
// milestones, the repeat window and the count's wrap; the fatal checks.

#include <gtest/gtest.h>

#include <cjson/cJSON.h>
#include <string.h>

#include <deque>
#include <map>
#include <random>
#include <regex>
#include <sstream>

#include "event_private.h"

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
std::string shown_id(event_id_t id, uint16_t count)
{
    std::string name = ev_name(id) ? ev_name(id) : std::to_string(id);
    return count ? name + "." + std::to_string(count) : name;
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

// Hands text to call from a buffer that is overwritten afterwards, so the
// store must have kept a copy; true when the seam made the copy.
template <class F> bool handed(const std::string &text, F call)
{
    static char buf[64];
    snprintf(buf, sizeof buf, "%s", text.c_str());
    copied = true;
    call(buf);
    memset(buf, '#', sizeof buf - 1);
    return copied;
}

std::pair<uint32_t, uint32_t> charged() // bytes, allocations of "Event History"
{
    const qvmodule_mem_cookie_t *c = evh_qvmodule->qvmodule_mem_cookie;
    return c ? std::pair{c->tmc_n_bytes, c->tmc_n_alloc} : std::pair{0u, 0u};
}

struct Block {
    std::string heading;
    bool kept;
    std::vector<std::string> elements;
};
struct Ev {
    evh_event_t *e;
    event_id_t id;
    uint16_t count = 0;
    std::vector<std::string> actions;
    std::vector<Block> blocks;
};
struct Obj {
    evh_object_t *o;
    std::deque<Ev> ring; // oldest first
};

// Every slot of the object against the reference, and the bytes it holds.
void expect_ring(const Obj &ob, std::pair<uint32_t, uint32_t> &texts)
{
    const evh_object_t *o = ob.o;
    size_t first = o->obj_first_event_read_index;
    ASSERT_EQ((o->obj_next_event_write_index + 16 - first) % 16, ob.ring.size());
    auto text = [&](const char *got, const std::string &want) {
        ASSERT_STREQ(got, want.c_str());
        texts.first += want.size() + 1, texts.second++;
    };
    for (size_t k = 0; k < 16; k++) {
        const evh_event_t *e = o->obj_event[(first + k) % 16];
        if (k >= ob.ring.size()) {
            ASSERT_EQ(e, nullptr);
            continue;
        }
        const Ev &ev = ob.ring[k];
        ASSERT_EQ(e, ev.e);
        ASSERT_EQ(e->event_ref_count, 1);
        ASSERT_EQ(e->event_id, ev.id);
        ASSERT_EQ(e->event_repeation_count, ev.count);
        ASSERT_EQ(e->event_next_action_write_index, ev.actions.size());
        for (size_t i = 0; i < ev.actions.size(); i++)
            text(e->event_action[i], ev.actions[i]);
        for (size_t b = 0; b < 2; b++) {
            const evh_einfo_t *ei = e->event_info[b];
            ASSERT_EQ(ei != nullptr, b < ev.blocks.size());
            if (ei == nullptr)
                continue;
            const Block &bl = ev.blocks[b];
            ASSERT_STREQ(ei->einfo_heading, bl.heading.c_str());
            texts.first += bl.kept ? bl.heading.size() + 1 : 0, texts.second += bl.kept;
            ASSERT_EQ(ei->einfo_next_element_write_index, bl.elements.size());
            for (size_t i = 0; i < bl.elements.size(); i++)
                text(ei->einfo_elements[i], bl.elements[i]);
        }
    }
}

// The reference's display: one line per member, "key {" ... "}" for objects.
std::string expected_history(const Obj &ob, bool ext, const std::string &in)
{
    std::string s = in + "Event History {\n", i1 = in + "  ", i2 = i1 + "  ", i3 = i2 + "  ";
    auto blocks = [&](const Ev &ev, const std::string &at) {
        for (const Block &bl : ext ? ev.blocks : std::vector<Block>{}) {
            s += at + "Event {\n" + at + "  Heading=" + bl.heading + "\n";
            for (const std::string &el : bl.elements)
                s += at + "  Elements=" + el + "\n";
            s += at + "}\n";
        }
    };
    for (auto ev = ob.ring.rbegin(); ev != ob.ring.rend(); ++ev) {
        s += i1 + "Event {\n" + i2 + "Timerstamp\n" + i2 +
             "Event ID=" + shown_id(ev->id, ev->count) + "\n";
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

// Ages in milliseconds from a time stamp such as " 1h: 1m: 1s .250".
long long age_ms(const std::string &t)
{
    EXPECT_TRUE(std::regex_match(t, std::regex("( -?\\d+d:)?( -?\\d+h:)?( -?\\d+m:)?( -?\\d+s )?"
                                               "\\.-?\\d+")))
        << t;
    size_t dot = t.rfind('.');
    std::istringstream in(t.substr(0, dot));
    long long sec = 0;
    for (std::string p; in >> p;) {
        char unit = p.back() == ':' ? p[p.size() - 2] : p.back();
        sec +=
            std::stoll(p) * std::map<char, long long>{{'d', 86400}, {'h', 3600}, {'m', 60}}[unit];
        sec += unit == 's' ? std::stoll(p) : 0;
    }
    return sec * 1000 + std::stoll(t.substr(dot + 1));
}

// The cJSON members in the reference's form; the ages of each "Event
// History", top to bottom, go to ages.
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

// The members that fill adds to an empty object. Ages grow down each list;
// with base, the k-th event of a list was stamped k * 9000 s before base,
// and its age lies between those of the clock readings around the call.
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
    for (const auto &list : ages) {
        EXPECT_TRUE(std::is_sorted(list.begin(), list.end())) << "ages grow down the list\n" << s;
        for (size_t k = 0; base && k < list.size(); k++) {
            long long apart = k * 9000000LL;
            EXPECT_GE(list[k], (usec(before) - usec(*base)) / 1000 + apart);
            EXPECT_LE(list[k], (usec(after) - usec(*base)) / 1000 + apart);
        }
    }
    cJSON_Delete(root);
    return s;
}

} // namespace

TEST(EventHistory, RandomRecordingAgreesWithAReferenceAndShowsAsJson)
{
    evh_event_cb_t cb{ev_name};
    evh_module_t *mod = evh_register_cb("model", &cb);
    // Long names differ only past 128 characters; "idle" never has an event.
    const std::string p(150, 'p');
    std::map<std::string, Obj> objs;
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

    evh_copy_text = flaky_copy, fail_one_in = 8;
    std::vector<Obj *> busy{&objs["eth0"], &objs["eth1"], &objs["lo"], &objs[p + "1"],
                            &objs[p + "2"]};
    for (int step = 0; step < 4000; step++) {
        Obj &ob = *busy[rng() % busy.size()];
        event_id_t id = rng() % 8;
        unsigned op = rng() % 8;
        if (op == 0) { // a repeat counts on one of the three newest, newest first
            Ev *want = nullptr;
            for (size_t k = 0; k < std::min<size_t>(3, ob.ring.size()) && !want; k++)
                want = ob.ring.rbegin()[k].id == id ? &ob.ring.rbegin()[k] : nullptr;
            ASSERT_EQ(evh_is_last_event_same(ob.o, id), want ? want->e : nullptr);
            if (want) {
                evh_inc_repeation_count(want->e);
                want->count++;
            }
        } else {
            Ev ev{evh_event_new(ob.o, id), id, 0, {}, {}};
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
                if (ei == nullptr)
                    continue;
                ev.blocks.push_back({kept ? h : "", kept, {}});
                for (unsigned i = 0, m = rng() % 19; i < m; i++) {
                    std::string t = "el" + std::to_string(i);
                    if (handed(t, [&](char *s) { event_record_einfo(ei, s); }) &&
                        ev.blocks.back().elements.size() < 16)
                        ev.blocks.back().elements.push_back(t);
                }
            }
            ob.ring.push_back(ev);
            if (ob.ring.size() > 15)
                ob.ring.pop_front();
            if (op == 1) // taken back: what it pushed out stays gone
                evh_event_release_last(ob.o, ev.e), ob.ring.pop_back();
        }
        auto texts = names;
        for (const auto &[name, o] : objs)
            ASSERT_NO_FATAL_FAILURE(expect_ring(o, texts)) << name << " at step " << step;
        ASSERT_EQ(charged(), texts) << "at step " << step;
    }
    evh_copy_text = qvmodule_mem_strdup;

    // Stamps 9000 s apart, so that ages run to days and differ.
    utime_t now;
    qvmodule_get_current_utime(&now);
    for (auto &[name, o] : objs)
        for (size_t k = 0; k < o.ring.size(); k++)
            o.ring.rbegin()[k].e->event_when_utime = {now.ut_sec - int32_t(k * 9000), now.ut_usec};
    for (boolean ext : {FALSE, TRUE}) {
        std::string all, peers, one = expected_history(objs["eth0"], ext, "");
        for (const auto &[name, o] : objs) {
            std::string body = o.ring.empty() ? "" : expected_history(o, ext, "  ");
            all += name + " {\n" + body + "}\n", peers += "Peer {\n" + body + "}\n";
        }
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, nullptr, nullptr, ext); }, &now),
                  all);
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, nullptr, "Peer", ext); }), peers);
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, "lo", nullptr, ext); }),
                  "lo {\n" + expected_history(objs["lo"], ext, "  ") + "}\n");
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, "idle", "Peer", ext); }),
                  "Peer {\n}\n");
        EXPECT_EQ(shown([&](cJSON *r) { event_show(r, mod, objs["eth0"].o, ext); }, &now), one);
        for (evh_object_t *o : {objs["idle"].o, (evh_object_t *)nullptr})
            EXPECT_EQ(shown([&](cJSON *r) { event_show(r, mod, o, ext); }), "");
        EXPECT_EQ(shown([&](cJSON *r) { event_show(r, nullptr, objs["lo"].o, ext); }), "");
        EXPECT_EQ(shown([&](cJSON *r) { event_show_module(r, mod, "nosuch", "Peer", ext); }), "");
    }

    // Fifteen bare events push every text out of every ring.
    for (Obj *ob : busy)
        for (int i = 0; i < 15; i++)
            evh_event_new(ob->o, 0);
    EXPECT_EQ(charged(), names);
}

// 15, 16 and 40 events on one object; repeats within and beyond the three
// newest; the count's wrap; an event stamped after the command time; a
// second evh_init.
TEST(EventHistory, RingMilestonesRepeatWindowAndCountWrap)
{
    const unsigned pools = qvmodule_block_names.tb_n_alloc;
    qvmodule *store = evh_qvmodule;
    evh_init();
    EXPECT_EQ(qvmodule_block_names.tb_n_alloc, pools);
    EXPECT_EQ(evh_qvmodule, store);
    EXPECT_STREQ(store->qvmodule_name, "Event History");
    evh_event_cb_t cb{ev_name};
    evh_object_t *o = evh_object_add(evh_register_cb("milestones", &cb), "obj");
    EXPECT_EQ(evh_is_last_event_same(o, 0), nullptr);
    for (int n = 1; n <= 40; n++) {
        evh_event_new(o, event_id_t(n));
        if (n != 15 && n != 16 && n != 40)
            continue;
        std::vector<int> ids, want;
        for (int i = o->obj_first_event_read_index; i != o->obj_next_event_write_index;
             i = (i + 1) % 16)
            ids.push_back(o->obj_event[i]->event_id);
        for (int id = std::max(1, n - 14); id <= n; id++)
            want.push_back(id);
        EXPECT_EQ(ids, want) << "after " << n;
        for (int back = 0; back < 4; back++) {
            evh_event_t *found = evh_is_last_event_same(o, event_id_t(n - back));
            EXPECT_EQ(found, back < 3
                                 ? o->obj_event[(o->obj_next_event_write_index + 15 - back) % 16]
                                 : nullptr);
        }
    }
    evh_event_t *e = o->obj_event[evh_last_event_index(o->obj_next_event_write_index)];
    for (int i = 0; i < 65535; i++)
        evh_inc_repeation_count(e);
    EXPECT_EQ(e->event_repeation_count, 65535);
    evh_inc_repeation_count(e);
    EXPECT_EQ(e->event_repeation_count, 0);

    e->event_when_utime.ut_sec += 100; // a clock set back: negative pieces
    cJSON *root = cJSON_CreateObject();
    event_show(root, o->obj_module, o, FALSE);
    const char *stamp = root->child->child->child->valuestring;
    EXPECT_TRUE(std::regex_match(stamp, std::regex("( -\\d+m:)?( -\\d+s )\\.\\d+"))) << stamp;
    cJSON_Delete(root);
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
    for (const auto &c : cases) {
        std::string re = std::string("event(_ui)?\\.cpp:") + c.func + ": assertion \"";
        for (const char *t = c.text; *t; ++t)
            re += std::string(strchr("()[]", *t) ? "\\" : "") + *t;
        EXPECT_DEATH(c.misuse(), re + "\" failed");
    }
}
