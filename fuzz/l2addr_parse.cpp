// Feeds arbitrary text to the layer-2 address parser and holds it to an
// independent statement of its rule: within the first 17 characters, six
// ":"-separated fields each starting with two hexadecimal digits (the
// sixth needs nothing after them). Accepted addresses must survive a trip
// through the text form.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <regex>
#include <string>

#include "qvsockaddr_l2addr.h"

#include "fuzz_check.h"

namespace
{

const std::regex &rule()
{
    static const std::regex re("([0-9a-fA-F]{2})[^:]*:([0-9a-fA-F]{2})[^:]*:"
                               "([0-9a-fA-F]{2})[^:]*:([0-9a-fA-F]{2})[^:]*:"
                               "([0-9a-fA-F]{2})[^:]*:([0-9a-fA-F]{2})");
    return re;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The parser sees the text up to its first NUL, as a C caller's would be.
    std::string text(reinterpret_cast<const char *>(data), size);
    l2_addr_t out;
    memset(&out, 0xa5, sizeof out);
    bool ok = l2_addr_string_to_addr(text.c_str(), &out);

    std::string seen(text.c_str(), strnlen(text.c_str(), 17));
    std::smatch m;
    bool want = std::regex_search(seen, m, rule(), std::regex_constants::match_continuous);
    FUZZ_CHECK(ok == want);
    if (!ok)
        return 0;
    for (int i = 0; i < L2_ADDR_LEN; i++)
        FUZZ_CHECK(out.addr[i] == strtoul(m[i + 1].str().c_str(), nullptr, 16));

    std::string form = l2_addr_to_str(&out);
    FUZZ_CHECK(form.size() == 17);
    l2_addr_t back;
    FUZZ_CHECK(l2_addr_string_to_addr(form.c_str(), &back));
    FUZZ_CHECK(l2_addr_cmp(&out, &back) == 0);
    return 0;
}
