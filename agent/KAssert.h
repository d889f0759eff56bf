#ifndef KJP_KASSERT_H
#define KJP_KASSERT_H

#include <assert.h>

// <assert.h> leaves the C library's reporter undeclared under NDEBUG; the agent's assertions
// use it in every build.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((__noreturn__));

// Preconditions of the agent. Unlike assert(), these stay active in every build: a broken
// invariant inside someone else's JVM must stop the process at once rather than corrupt
// the recorded data. The report is the C library's own ("file:line: function: Assertion
// `condition' failed.") followed by abort().
#define KASSERT(cond) \
  (__builtin_expect(!!(cond), 1) ? (void)0 : __assert_fail(#cond, __FILE__, __LINE__, __PRETTY_FUNCTION__))

// The same, with the text of the report given explicitly where the condition as written in
// the code differs from the text that diagnostics are known by.
#define KASSERT_TEXT(cond, text) \
  (__builtin_expect(!!(cond), 1) ? (void)0 : __assert_fail(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif
