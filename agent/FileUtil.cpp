#include "agent/FileUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/KVector.h"

KString ourAlternateTempDirForBigIntArraysUtf8;

namespace {

const mode_t NEW_FILE_MODE = 0644;
const int READ_BLOCK_SIZE = 1024;

int openJavaPath(JNIEnv* env, jstring path, int flags) {
  if (path == nullptr) {
    return -1;
  }
  const char* utf = env->GetStringUTFChars(path, nullptr);
  if (utf == nullptr) {
    // Out of memory in the JVM: an OutOfMemoryError is pending and the caller sees -1.
    return -1;
  }
  int fd = open(utf, flags | O_CLOEXEC, NEW_FILE_MODE);
  env->ReleaseStringUTFChars(path, utf);
  return fd;
}

}  // namespace

int openFileForWrite(JNIEnv* env, jstring path) { return openJavaPath(env, path, O_WRONLY | O_CREAT | O_TRUNC); }

int openFileForRead(JNIEnv* env, jstring path) { return openJavaPath(env, path, O_RDONLY); }

int openFileForMapping(JNIEnv* env, jstring path) { return openJavaPath(env, path, O_RDONLY); }

int openFileForMapping2(JNIEnv* env, jstring path) { return openJavaPath(env, path, O_RDWR | O_CREAT | O_TRUNC); }

int closeFile(int fd) { return close(fd); }

int deleteFile(const char* path) { return unlink(path); }

KString readFile(FILE* file) {
  KVector<char> text(READ_BLOCK_SIZE);
  char block[READ_BLOCK_SIZE];
  size_t n;
  while ((n = fread(block, 1, sizeof(block), file)) > 0) {
    for (size_t i = 0; i < n; i++) {
      text.push(block[i]);
    }
  }
  text.push(0);
  return KString(text.getArray());
}

KString getTempFilePath(const KString& prefix) {
  KString directory("/tmp/");
  if (!ourAlternateTempDirForBigIntArraysUtf8.isEmpty()) {
    directory = ourAlternateTempDirForBigIntArraysUtf8 + "/";
  }
  KString base(directory.get(), prefix);
  for (int counter = 1; counter <= MAX_TEMP_FILE_ATTEMPTS; counter++) {
    char suffix[32];
    snprintf(suffix, sizeof(suffix), "%d.ta", counter);
    KString path(base.get(), suffix);
    int fd = open(path.get(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, NEW_FILE_MODE);
    if (fd >= 0) {
      close(fd);
      return path;
    }
  }
  return KString();
}
