#ifndef KJP_TEXT_UTIL_H
#define KJP_TEXT_UTIL_H

// Prefix of an option value in hex-quoted form: after it, every byte of the value is written
// as two hex digits, so that values can carry commas and any non-ASCII text through the
// comma-separated agent options.
#define KJP_QUOTED_PREFIX "KJPQUOTED"

// The plain bytes of a possibly hex-quoted value, as new[] memory the caller owns. Null gives
// null; a value without the prefix, or one whose hex part is malformed (odd length, a
// character that isn't a hex digit), comes back as an unchanged copy.
char* unquote(const char* value);

// Whether 'text' matches 'pattern' as a whole, where "*" stands for any run of characters,
// also an empty one, and every other character for itself, case sensitive. A null pattern
// matches everything.
bool wildcardMatch(const char* pattern, const char* text);

// The Java name of a type given by its JVM signature or internal name: "[[Ljava/lang/String;"
// gives "java.lang.String[][]", "[I" gives "int[]", "java/util/Map" gives "java.util.Map".
// new[] memory owned by the caller.
char* classSignature2fqName(const char* signature);

// The agent's own English text for an errno value, independent of the locale; null for a
// number it has no text for.
const char* getEnglishErrorMessage(int errnum);

#endif
