#ifndef KJP_FILTER_H
#define KJP_FILTER_H

#include <jni.h>
#include <stdio.h>

#include "agent/KString.h"
#include "agent/KVector.h"
#include "db/DB.h"

// One pattern line of the three method lists: method filters (library code whose inner calls
// are collapsed), wall-time methods (timed by the wall clock) and the built-in wait list
// (methods in which a sampled thread is idle). Lists become flag bits on method rows, so
// the hot paths read one word and never a pattern.
class Filter {
 public:
  static const jint TYPE_WALL_TIME = 1;
  static const jint TYPE_METHOD_FILTER = 2;
  static const jint TYPE_WAIT = 3;

  // Takes copies of the patterns; method and signature may be null (match anything).
  Filter(const char* classNamePattern, const char* methodNamePattern, const char* signaturePattern, jint type);
  ~Filter();

  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  // Whether the method matches all three patterns; inverted once a "+" line was seen.
  bool accept(const MethodRecord* record) const;

  // The filter list text for start-up: the file of the filters option, or the default.
  static KString readFilterSpecOnStartup();
  // The wall-time list text for start-up: the walltimespec file, the user's file, or the
  // default.
  static KString readWallTimeSpecOnStartup();
  // The whole stream as text, or the default list when the stream is null.
  static KString readFilterSpecFromFile(FILE* file);
  // The whole stream as text; for null, the user's wall-time file, or the default list.
  static KString readWallTimeSpecFromFile(FILE* file);

  // Replaces every filter by those of the two texts plus the wait list, and re-flags every
  // known method.
  static void reloadFilters(const KString& filters, const KString& wallTimeSpec);

  // Sets the wall-time, filtered and wait bits of a method from the current lists; stamps
  // the row only when they change.
  static void applyFilters(MethodRecord* record);

  static KVector<Filter*>& ourFilters;

  char* myClassNamePattern;
  char* myMethodNamePattern;
  char* mySignaturePattern;
  jint myType;
};

// Set by a filter line beginning with "+", and never cleared: every filter answer is then
// inverted.
extern bool ourInverseFilters;

extern const char* const DEFAULT_FILTER_SPEC;
extern const char* const DEFAULT_WALL_TIME_SPEC;

#endif
