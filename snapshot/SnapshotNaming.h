#ifndef KJP_SNAPSHOTNAMING_H
#define KJP_SNAPSHOTNAMING_H

#include <time.h>

#include "agent/KString.h"

// Where snapshots go and what they are called: "<session>-<yyyy-MM-dd>-<postfix>" with a
// number in parentheses when that name is taken. The Java runtime names the snapshots it
// captures by the same rules, so files from both paths sort together in one directory.

// The session name as a piece of a file name: letters, digits and "." stay, anything else
// becomes "_". Characters beyond ASCII are kept whole: they are letters in nearly every name
// people give sessions, and a file name holds them fine.
KString sessionNameToFileNamePart(const char* sessionName);

// The base name without number and extension, for the local date of 'now'; the session part
// and the postfix are left out, with their dashes, when empty or null.
KString makeSnapshotBaseName(const char* sessionName, const char* postfix, time_t now);

// The file in 'directory' for 'baseName' and 'extension'. When the directory can be listed,
// the number is one above the highest number in use for this name ("name.ext" counts as 0),
// so numbers never fill gaps; a name with anything but digits in the parentheses is ignored.
// When it can't be listed, the first name that doesn't exist is taken.
KString chooseSnapshotFile(const char* directory, const KString& baseName, const char* extension);

// The snapshot directory: the dir= option made absolute against the working directory, or
// "Snapshots" in the user's home.
KString getSnapshotDirectory(const char* dirOption, const char* userHome);

// Makes the directory and its missing parents. True when it exists afterwards.
bool makeDirectories(const char* path);

#endif
