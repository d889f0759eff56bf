#include "snapshot/SocketWriter.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>

SocketWriter::SocketWriter(int socketFD, jint bufferCapacity, bool oidsAreInts, int sendTimeoutMs)
    : AbstractWriter(socketFD, bufferCapacity, oidsAreInts), myFailed(false), myRestoreTimeout(false), myOldTimeout() {
  socklen_t length = sizeof(myOldTimeout);
  if (getsockopt(socketFD, SOL_SOCKET, SO_SNDTIMEO, &myOldTimeout, &length) == 0) {
    struct timeval timeout;
    timeout.tv_sec = sendTimeoutMs / 1000;
    timeout.tv_usec = (sendTimeoutMs % 1000) * 1000;
    myRestoreTimeout = setsockopt(socketFD, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) == 0;
  }
}

SocketWriter::~SocketWriter() {
  flush();
  if (myRestoreTimeout) {
    setsockopt(myFD, SOL_SOCKET, SO_SNDTIMEO, &myOldTimeout, sizeof(myOldTimeout));
  }
}

void SocketWriter::flush() {
  if (myNumberOfBufferedChars == 0) {
    return;
  }
  if (!myFailed && !sendFully(myFD, myBuffer, myNumberOfBufferedChars)) {
    myFailed = true;
  }
  myNumberOfBufferedChars = 0;
}

bool sendFully(int socketFD, const char* bytes, jint length) {
  jint sent = 0;
  while (sent < length) {
    ssize_t result = send(socketFD, bytes + sent, static_cast<size_t>(length - sent), MSG_NOSIGNAL);
    if (result < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    sent += static_cast<jint>(result);
  }
  return true;
}
