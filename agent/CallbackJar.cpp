#include "agent/CallbackJar.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whether a file that this process didn't just write may go on the boot class path: a regular
// file of this user's (or root's) that nobody else may change.
bool isTrustworthy(const struct stat& info) {
  return S_ISREG(info.st_mode) && (info.st_uid == geteuid() || info.st_uid == 0) &&
         (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool readsAsOurJar(int fd) {
  unsigned char buffer[4096];
  size_t offset = 0;
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      return false;
    }
    if (n == 0) {
      return offset == ourCallbackJarBytes_length;
    }
    size_t count = static_cast<size_t>(n);
    if (offset + count > ourCallbackJarBytes_length ||
        memcmp(buffer, ourCallbackJarBytes + offset, count) != 0) {
      return false;
    }
    offset += count;
  }
}

// 'usable': the file at 'path' may be used as it is. 'ours': it also holds this jar's bytes.
void examine(const char* path, bool* usable, bool* ours) {
  *usable = false;
  *ours = false;
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd == -1) {
    return;
  }
  struct stat info;
  if (fstat(fd, &info) == 0 && isTrustworthy(info)) {
    *usable = true;
    *ours = readsAsOurJar(fd);
  }
  close(fd);
}

bool writeAll(int fd) {
  size_t written = 0;
  while (written < ourCallbackJarBytes_length) {
    ssize_t n = write(fd, ourCallbackJarBytes + written, ourCallbackJarBytes_length - written);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    written += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

KString getCallbackJarPath(const char* tmpDir) {
  return KString(tmpDir != nullptr ? tmpDir : "/tmp", "/kjp200902201432.jar");
}

KString installCallbackJar(const char* path) {
  bool usable = false;
  bool ours = false;
  examine(path, &usable, &ours);
  if (ours) {
    return KString(path);
  }

  char freshPath[PATH_MAX];
  if (snprintf(freshPath, sizeof(freshPath), "%s.XXXXXX", path) >= static_cast<int>(sizeof(freshPath))) {
    return usable ? KString(path) : KString("");
  }
  int fd = mkstemp(freshPath);
  if (fd == -1) {
    // A directory this process can't write: an earlier run's jar serves, if it can be trusted.
    return usable ? KString(path) : KString("");
  }
  bool written = writeAll(fd) && fchmod(fd, 0644) == 0;
  close(fd);
  if (!written) {
    unlink(freshPath);
    return usable ? KString(path) : KString("");
  }
  if (rename(freshPath, path) == 0) {
    return KString(path);
  }
  // The name belongs to someone else (another user's jar in a sticky /tmp): this process
  // keeps its own copy under the fresh name.
  return KString(freshPath);
}
