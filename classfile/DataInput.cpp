#include "classfile/DataInput.h"

KString DataInput::readString(int length) {
  KASSERT(length >= 0);
  const unsigned char* bytes = skip(length);
  if (memchr(bytes, 0, static_cast<size_t>(length)) != nullptr) {
    throw ClassFormatError("a string constant holds a zero byte");
  }
  // KString is built from a terminated text; names and descriptors are short, so the
  // terminated copy usually lives on the stack.
  char small[256];
  char* text = length < static_cast<int>(sizeof(small)) ? small : new char[length + 1];
  memcpy(text, bytes, static_cast<size_t>(length));
  text[length] = 0;
  KString result(text);
  if (text != small) {
    delete[] text;
  }
  return result;
}
