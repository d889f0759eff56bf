#ifndef KJP_SOCKETWRITER_H
#define KJP_SOCKETWRITER_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// The writer of table updates on the UI's socket. Send errors are ignored: a lost connection
// shows up in the Java side's next read, which is where the request thread can deal with it.
class SocketWriter : public AbstractWriter {
 public:
  // The socket stays the caller's.
  SocketWriter(int socketFD, jint bufferCapacity, bool oidsAreInts);
  ~SocketWriter() override;

  void flush() override;
};

// Sends all of the bytes unless the connection fails, without raising SIGPIPE: a UI that went
// away must not end the profiled application. Returns false on a failed send.
bool sendFully(int socketFD, const char* bytes, jint length);

#endif
