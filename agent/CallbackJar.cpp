#include "agent/CallbackJar.h"

#include <fcntl.h>
#include <unistd.h>

KString getCallbackJarPath(const char* tmpDir) {
  return KString(tmpDir != nullptr ? tmpDir : "/tmp", "/kjp200902201432.jar");
}

bool writeCallbackJar(const char* path) {
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd != -1) {
    size_t written = 0;
    while (written < ourCallbackJarBytes_length) {
      ssize_t n = write(fd, ourCallbackJarBytes + written, ourCallbackJarBytes_length - written);
      if (n <= 0) {
        break;
      }
      written += static_cast<size_t>(n);
    }
    close(fd);
  }
  int readFd = open(path, O_RDONLY);
  if (readFd == -1) {
    return false;
  }
  close(readFd);
  return true;
}
