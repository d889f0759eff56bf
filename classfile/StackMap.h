#ifndef KJP_STACKMAP_H
#define KJP_STACKMAP_H

#include "agent/KVector.h"
#include "classfile/DataOutput.h"

class ClassFile;
class MethodInfo;

// One entry of a frame's locals or stack, as the StackMapTable encodes it. A long or a
// double is one entry, though it fills two local slots.
struct VerificationType {
  static constexpr int ITEM_TOP = 0;
  static constexpr int ITEM_INTEGER = 1;
  static constexpr int ITEM_FLOAT = 2;
  static constexpr int ITEM_DOUBLE = 3;
  static constexpr int ITEM_LONG = 4;
  static constexpr int ITEM_NULL = 5;
  static constexpr int ITEM_UNINITIALIZED_THIS = 6;
  static constexpr int ITEM_OBJECT = 7;         // myData: pool index of the class
  static constexpr int ITEM_UNINITIALIZED = 8;  // myData: code offset of the 'new'

  int myTag;
  int myData;

  static VerificationType of(int tag, int data = 0) {
    VerificationType type;
    type.myTag = tag;
    type.myData = data;
    return type;
  }
  bool operator==(const VerificationType& other) const { return myTag == other.myTag && myData == other.myData; }
  bool operator!=(const VerificationType& other) const { return !(*this == other); }
};

// A frame with everything spelled out: its absolute code offset and its complete locals
// and stack, whatever form it was encoded in. Code that moves offsets or adds locals
// changes these and leaves the choice of encoding to StackMap::encode.
class StackMapFrame {
 public:
  // frameType: the frame_type byte this frame was read with, or NEW_FRAME for a frame
  // made by the agent.
  static constexpr int NEW_FRAME = -1;

  StackMapFrame(int offset, int frameType) : myOffset(offset), myFrameType(frameType), myLocals(4), myStack(2) {}

  int myOffset;
  int myFrameType;
  KVector<VerificationType> myLocals;
  KVector<VerificationType> myStack;
};

// The frames of one StackMapTable, decoded, and the encoder back to its body.
//
// Encoding keeps the form each frame was read in whenever that form still describes the
// frame (a same_frame still has the locals of the frame before it and a small enough
// offset delta, and so on), so that a table decoded and encoded unchanged comes back byte
// for byte. A frame whose form no longer fits, or one made by the agent, gets the most
// compact form that does.
class StackMap {
 public:
  StackMap() : myFrames(8) {}
  ~StackMap() { clear(); }
  StackMap(const StackMap&) = delete;
  StackMap& operator=(const StackMap&) = delete;

  // Decodes a StackMapTable body of a method with 'codeLength' bytes of code whose implicit
  // first frame has 'initialLocals'. Throws ClassFormatError for a body that is truncated,
  // too long, has a reserved frame type or verification tag, chops more locals than there
  // are, or names an offset outside the code.
  void decode(const unsigned char* body, int length, int codeLength, const KVector<VerificationType>& initialLocals);

  // Writes the body for the frames as they are now. Throws ClassFormatError if the frames
  // are not in rising offset order or a count does not fit.
  void encode(const KVector<VerificationType>& initialLocals, DataOutput& out) const;

  KVector<StackMapFrame*>& getFrames() { return myFrames; }
  const KVector<StackMapFrame*>& getFrames() const { return myFrames; }
  void clear();

  // The implicit first frame of 'method': 'this' (uninitializedThis in a constructor other
  // than Object's) and the parameters. Class types need Class entries, which this finds or
  // adds to the pool, so call it only for a class that is being changed anyway. Throws
  // ClassFormatError for a malformed descriptor.
  static void initialLocals(ClassFile& classFile, const MethodInfo& method, KVector<VerificationType>& out);

 private:
  KVector<StackMapFrame*> myFrames;
};

#endif
