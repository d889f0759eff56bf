#ifndef KJP_FILE_UTIL_H
#define KJP_FILE_UTIL_H

#include <jni.h>
#include <stdio.h>

#include "agent/KString.h"

// Directory for the temp files of the analysis natives; empty means "/tmp". Set by the UI
// through the object storage native.
extern KString ourAlternateTempDirForBigIntArraysUtf8;

// Open the file named by a Java string (its modified UTF-8 bytes are the path). Each returns
// the descriptor, or -1 if the file can't be opened or the string is null.
int openFileForWrite(JNIEnv* env, jstring path);     // write only, created, truncated, 0644
int openFileForRead(JNIEnv* env, jstring path);      // read only
int openFileForMapping(JNIEnv* env, jstring path);   // read only, for a read-only mapping
int openFileForMapping2(JNIEnv* env, jstring path);  // read-write, created, truncated, 0644

int closeFile(int fd);
int deleteFile(const char* path);

// The whole rest of a stream as text, read in blocks of 1024 bytes. A NUL byte in the data
// ends the text there.
KString readFile(FILE* file);

// A fresh path for a temp file of the analysis natives: the directory, 'prefix', a number and
// ".ta". The file is created (or truncated, if a file of that name is left over) and closed,
// and stays for the caller. Numbers are tried from 1 upward until one can be opened; after
// MAX_TEMP_FILE_ATTEMPTS failures, as in a missing or read-only directory, the result is
// empty.
KString getTempFilePath(const KString& prefix);

const int MAX_TEMP_FILE_ATTEMPTS = 10000;

#endif
