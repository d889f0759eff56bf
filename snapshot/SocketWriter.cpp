#include "snapshot/SocketWriter.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/types.h>

SocketWriter::SocketWriter(int socketFD, jint bufferCapacity, bool oidsAreInts)
    : AbstractWriter(socketFD, bufferCapacity, oidsAreInts) {}

SocketWriter::~SocketWriter() { flush(); }

void SocketWriter::flush() {
  if (myNumberOfBufferedChars == 0) {
    return;
  }
  sendFully(myFD, myBuffer, myNumberOfBufferedChars);
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
