#ifndef KJP_ABSTRACTWRITER_H
#define KJP_ABSTRACTWRITER_H

#include <jni.h>
#include <wchar.h>

// The little-endian encoder behind snapshot files and table updates on the socket. Every
// primitive goes through writeByte over one owned buffer; a derived writer decides where a
// full buffer goes. Rows are never assembled in memory: they are encoded field by field
// straight into this buffer.
//
// Byte order is little-endian throughout, unlike class files and packet headers.
class AbstractWriter {
 public:
  // The descriptor is not owned and never closed here.
  AbstractWriter(int fd, jint bufferCapacity, bool oidsAreInts);

  // Sends the buffered bytes on and empties the buffer.
  virtual void flush() = 0;
  // Frees the buffer. Derived destructors flush first: by the time this runs, a derived
  // writer's flush can no longer be called.
  virtual ~AbstractWriter();

  AbstractWriter(const AbstractWriter&) = delete;
  AbstractWriter& operator=(const AbstractWriter&) = delete;

  void writeByte(int value);
  void writeShort(int value);
  void writeInt(jint value);
  void writeLong(jlong value);
  void writeFloat(float value);
  void writeDouble(double value);
  // Raw bytes as they are, for data that is in the file's byte order already.
  void writeBytes(const void* bytes, jlong count);
  // An object id: 4 bytes when OIDs are ints, else 8.
  void writeOID(jlong oid);
  // Int length and the bytes, without terminator; null is length -1 and no bytes.
  void writeString(const char* text);
  // Int length, then each char as 2 bytes, truncated to 16 bits.
  void writeWString(jint length, const wchar_t* chars);
  // Int UTF-16 length of the Java string, then its units as 2 bytes each.
  void writeWString(JNIEnv* env, jstring text);

  int getFD() const { return myFD; }
  jint getBufferedCount() const { return myNumberOfBufferedChars; }

 protected:
  bool myOIDsAreInts;
  jint myBufferCapacity;
  char* myBuffer;
  jint myNumberOfBufferedChars;
  int myFD;
};

#endif
