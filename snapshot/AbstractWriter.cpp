#include "snapshot/AbstractWriter.h"

#include <string.h>

#include "agent/KAssert.h"

AbstractWriter::AbstractWriter(int fd, jint bufferCapacity, bool oidsAreInts)
    : myOIDsAreInts(oidsAreInts), myBufferCapacity(bufferCapacity), myBuffer(nullptr), myNumberOfBufferedChars(0),
      myFD(fd) {
  KASSERT(bufferCapacity > 0);
  myBuffer = new char[bufferCapacity];
}

AbstractWriter::~AbstractWriter() { delete[] myBuffer; }

void AbstractWriter::writeByte(int value) {
  // Flush before storing, not after: a buffer that is exactly full waits for the next byte.
  if (myNumberOfBufferedChars == myBufferCapacity) {
    flush();
    KASSERT(myNumberOfBufferedChars == 0);
  }
  myBuffer[myNumberOfBufferedChars++] = static_cast<char>(value & 0xFF);
}

void AbstractWriter::writeBytes(const void* bytes, jlong count) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    if (myNumberOfBufferedChars == myBufferCapacity) {
      flush();
      KASSERT(myNumberOfBufferedChars == 0);
    }
    jlong room = myBufferCapacity - myNumberOfBufferedChars;
    jint chunk = static_cast<jint>(count < room ? count : room);
    memcpy(myBuffer + myNumberOfBufferedChars, from, static_cast<size_t>(chunk));
    myNumberOfBufferedChars += chunk;
    from += chunk;
    count -= chunk;
  }
}

void AbstractWriter::writeShort(int value) {
  writeByte(value);
  writeByte(value >> 8);
}

void AbstractWriter::writeInt(jint value) {
  unsigned int bits = static_cast<unsigned int>(value);
  // Ints are most of a heap dump's records: with room for one, no byte needs its own check.
  if (myBufferCapacity - myNumberOfBufferedChars >= 4) {
    char* at = myBuffer + myNumberOfBufferedChars;
    at[0] = static_cast<char>(bits & 0xFF);
    at[1] = static_cast<char>((bits >> 8) & 0xFF);
    at[2] = static_cast<char>((bits >> 16) & 0xFF);
    at[3] = static_cast<char>((bits >> 24) & 0xFF);
    myNumberOfBufferedChars += 4;
    return;
  }
  writeByte(static_cast<int>(bits & 0xFF));
  writeByte(static_cast<int>((bits >> 8) & 0xFF));
  writeByte(static_cast<int>((bits >> 16) & 0xFF));
  writeByte(static_cast<int>((bits >> 24) & 0xFF));
}

void AbstractWriter::writeLong(jlong value) {
  unsigned long long bits = static_cast<unsigned long long>(value);
  writeInt(static_cast<jint>(static_cast<unsigned int>(bits & 0xFFFFFFFFu)));
  writeInt(static_cast<jint>(static_cast<unsigned int>(bits >> 32)));
}

void AbstractWriter::writeFloat(float value) {
  jint bits;
  memcpy(&bits, &value, sizeof(bits));
  writeInt(bits);
}

void AbstractWriter::writeDouble(double value) {
  jlong bits;
  memcpy(&bits, &value, sizeof(bits));
  writeLong(bits);
}

void AbstractWriter::writeOID(jlong oid) {
  if (myOIDsAreInts) {
    writeInt(static_cast<jint>(oid));
  } else {
    writeLong(oid);
  }
}

void AbstractWriter::writeString(const char* text) {
  if (text == nullptr) {
    writeInt(-1);
    return;
  }
  jint length = static_cast<jint>(strlen(text));
  writeInt(length);
  for (jint i = 0; i < length; i++) {
    writeByte(text[i]);
  }
}

void AbstractWriter::writeWString(jint length, const wchar_t* chars) {
  writeInt(length);
  for (jint i = 0; i < length; i++) {
    writeShort(static_cast<int>(chars[i]));
  }
}

void AbstractWriter::writeWString(JNIEnv* env, jstring text) {
  jint length = env->GetStringLength(text);
  writeInt(length);
  const jchar* chars = env->GetStringChars(text, nullptr);
  if (chars == nullptr) {
    return;
  }
  for (jint i = 0; i < length; i++) {
    writeShort(chars[i]);
  }
  env->ReleaseStringChars(text, chars);
}
