#ifndef KJP_KHELPERS_H
#define KJP_KHELPERS_H

#include <stddef.h>

// Wrappers of C library functions whose memory, where they make any, comes from new[], so
// that every buffer of the agent is released the same way (delete[]).
char* k_strcpy(char* destination, const char* source);
// A new[] copy of text; null for null.
char* k_strdup(const char* text);
int k_abs(int value);

// Hooks for counting the agent's allocations; they count nothing in this build.
void _knew(const char* site, size_t size);
void _kprintAllocStatistics();

#endif
