/* Always-on fatal checks: a broken invariant names the failed condition,
 * the source file and the function, then aborts, whatever NDEBUG says. */
#ifndef QV_ASSERT_H
#define QV_ASSERT_H

namespace qv
{
[[noreturn]] void qv_assert_fail(const char *cond, const char *file, const char *func) noexcept;
}

#define QV_ASSERT(cond) ((cond) ? (void)0 : ::qv::qv_assert_fail(#cond, __FILE__, __func__))
/* For checks whose reported text differs from the C++ expression. */
#define QV_ASSERT_TEXT(cond, text)                                                                 \
    ((cond) ? (void)0 : ::qv::qv_assert_fail(text, __FILE__, __func__))

#endif
