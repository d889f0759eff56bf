#ifndef KJP_SOCKETWRITER_H
#define KJP_SOCKETWRITER_H

#include <jni.h>
#include <sys/time.h>

#include "snapshot/AbstractWriter.h"

// The writer of table updates on the UI's socket. Send errors are not reported: a lost
// connection shows up in the Java side's next read, which is where the request thread can deal
// with it.
//
// A table update is written under the agent's lock, which every traced call of the application
// waits for, so a client that stops reading must not hold it for long: each send may wait at
// most the send timeout, and after the first failed send the rest of the update is dropped.
class SocketWriter : public AbstractWriter {
 public:
  static constexpr int DEFAULT_SEND_TIMEOUT_MS = 30000;

  // The socket stays the caller's; its own send timeout is put back when the writer goes.
  SocketWriter(int socketFD, jint bufferCapacity, bool oidsAreInts, int sendTimeoutMs = DEFAULT_SEND_TIMEOUT_MS);
  ~SocketWriter() override;

  void flush() override;

  bool hasFailed() const { return myFailed; }

 private:
  bool myFailed;
  bool myRestoreTimeout;
  struct timeval myOldTimeout;
};

// Sends all of the bytes unless the connection fails, without raising SIGPIPE: a UI that went
// away must not end the profiled application. Returns false on a failed send.
bool sendFully(int socketFD, const char* bytes, jint length);

#endif
