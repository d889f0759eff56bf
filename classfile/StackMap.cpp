#include "classfile/StackMap.h"

#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"

namespace {

const int SAME_FRAME_MAX = 63;
const int SAME_LOCALS_1_STACK_ITEM_MIN = 64;
const int SAME_LOCALS_1_STACK_ITEM_MAX = 127;
const int SAME_LOCALS_1_STACK_ITEM_EXTENDED = 247;
const int CHOP_FRAME_MIN = 248;
const int CHOP_FRAME_MAX = 250;
const int SAME_FRAME_EXTENDED = 251;
const int APPEND_FRAME_MIN = 252;
const int APPEND_FRAME_MAX = 254;
const int FULL_FRAME = 255;

// A bounds-checked big-endian cursor over a body held outside any vector.
class BodyReader {
 public:
  BodyReader(const unsigned char* body, int length) : myBody(body), myLength(length), myPosition(0) {}

  int u1() {
    require(1);
    return myBody[myPosition++];
  }

  int u2() {
    require(2);
    int value = (myBody[myPosition] << 8) | myBody[myPosition + 1];
    myPosition += 2;
    return value;
  }

  bool atEnd() const { return myPosition == myLength; }

 private:
  void require(int count) {
    if (count > myLength - myPosition) {
      throw ClassFormatError("a stack map ends early, at byte %d of %d", myPosition, myLength);
    }
  }

  const unsigned char* myBody;
  int myLength;
  int myPosition;
};

VerificationType readType(BodyReader& in, int codeLength) {
  int tag = in.u1();
  switch (tag) {
    case VerificationType::ITEM_OBJECT:
      return VerificationType::of(tag, in.u2());
    case VerificationType::ITEM_UNINITIALIZED: {
      int offset = in.u2();
      if (offset >= codeLength) {
        throw ClassFormatError("a stack map names an uninitialized object at %d, behind the code", offset);
      }
      return VerificationType::of(tag, offset);
    }
    default:
      if (tag > VerificationType::ITEM_UNINITIALIZED) {
        throw ClassFormatError("a stack map holds the unknown verification type %d", tag);
      }
      return VerificationType::of(tag);
  }
}

void writeType(DataOutput& out, const VerificationType& type) {
  out.writeUnsignedByte(type.myTag);
  if (type.myTag == VerificationType::ITEM_OBJECT || type.myTag == VerificationType::ITEM_UNINITIALIZED) {
    out.writeUnsignedShort(static_cast<unsigned int>(type.myData));
  }
}

void copyTypes(const KVector<VerificationType>& from, KVector<VerificationType>& to) {
  to.clear();
  for (int i = 0; i < from.size(); i++) {
    to.push(from[i]);
  }
}

bool sameTypes(const KVector<VerificationType>& a, const KVector<VerificationType>& b, int count) {
  for (int i = 0; i < count; i++) {
    if (a[i] != b[i]) {
      return false;
    }
  }
  return true;
}

// The forms a frame can take, with what each needs of the frame compared with the one
// before it.
enum FrameForm { SAME, SAME_EXTENDED, SAME_LOCALS_1, SAME_LOCALS_1_EXTENDED, CHOP, APPEND, FULL, NONE };

FrameForm formOf(int frameType) {
  if (frameType < 0) {
    return NONE;
  }
  if (frameType <= SAME_FRAME_MAX) {
    return SAME;
  }
  if (frameType <= SAME_LOCALS_1_STACK_ITEM_MAX) {
    return SAME_LOCALS_1;
  }
  if (frameType == SAME_LOCALS_1_STACK_ITEM_EXTENDED) {
    return SAME_LOCALS_1_EXTENDED;
  }
  if (frameType >= CHOP_FRAME_MIN && frameType <= CHOP_FRAME_MAX) {
    return CHOP;
  }
  if (frameType == SAME_FRAME_EXTENDED) {
    return SAME_EXTENDED;
  }
  if (frameType >= APPEND_FRAME_MIN && frameType <= APPEND_FRAME_MAX) {
    return APPEND;
  }
  if (frameType == FULL_FRAME) {
    return FULL;
  }
  return NONE;
}

bool fits(FrameForm form, int delta, const StackMapFrame& frame, const KVector<VerificationType>& previousLocals) {
  int localsCount = frame.myLocals.size();
  int previousCount = previousLocals.size();
  int stackCount = frame.myStack.size();
  bool sameLocals = localsCount == previousCount && sameTypes(frame.myLocals, previousLocals, localsCount);
  switch (form) {
    case SAME: return stackCount == 0 && sameLocals && delta <= SAME_FRAME_MAX;
    case SAME_EXTENDED: return stackCount == 0 && sameLocals;
    case SAME_LOCALS_1: return stackCount == 1 && sameLocals && delta <= SAME_FRAME_MAX;
    case SAME_LOCALS_1_EXTENDED: return stackCount == 1 && sameLocals;
    case CHOP: {
      int chopped = previousCount - localsCount;
      return stackCount == 0 && chopped >= 1 && chopped <= 3 && sameTypes(frame.myLocals, previousLocals, localsCount);
    }
    case APPEND: {
      int appended = localsCount - previousCount;
      return stackCount == 0 && appended >= 1 && appended <= 3 && sameTypes(frame.myLocals, previousLocals, previousCount);
    }
    case FULL: return true;
    case NONE: return false;
  }
  return false;
}

FrameForm bestForm(int delta, const StackMapFrame& frame, const KVector<VerificationType>& previousLocals) {
  static const FrameForm ORDER[] = {SAME, SAME_LOCALS_1, SAME_EXTENDED, SAME_LOCALS_1_EXTENDED, CHOP, APPEND};
  for (FrameForm form : ORDER) {
    if (fits(form, delta, frame, previousLocals)) {
      return form;
    }
  }
  return FULL;
}

void writeCount(DataOutput& out, int count) {
  if (count > 0xFFFF) {
    throw ClassFormatError("a stack map frame of %d entries", count);
  }
  out.writeUnsignedShort(static_cast<unsigned int>(count));
}

// Moves 'index' past one field descriptor that starts there, or throws.
int skipFieldDescriptor(const char* descriptor, int index) {
  while (descriptor[index] == '[') {
    index++;
  }
  switch (descriptor[index]) {
    case 'B': case 'C': case 'D': case 'F': case 'I': case 'J': case 'S': case 'Z':
      return index + 1;
    case 'L': {
      int end = index + 1;
      while (descriptor[end] != ';' && descriptor[end] != 0) {
        end++;
      }
      if (descriptor[end] != ';' || end == index + 1) {
        break;
      }
      return end + 1;
    }
    default:
      break;
  }
  throw ClassFormatError("a malformed method descriptor \"%s\"", descriptor);
}

}  // namespace

void StackMap::clear() {
  for (int i = 0; i < myFrames.size(); i++) {
    delete myFrames[i];
  }
  myFrames.clear();
}

void StackMap::decode(const unsigned char* body, int length, int codeLength,
                      const KVector<VerificationType>& initialLocals) {
  clear();
  BodyReader in(body, length);
  int numberOfEntries = in.u2();
  const KVector<VerificationType>* previousLocals = &initialLocals;
  int previousOffset = -1;
  for (int i = 0; i < numberOfEntries; i++) {
    int frameType = in.u1();
    FrameForm form = formOf(frameType);
    if (form == NONE) {
      throw ClassFormatError("a stack map holds the reserved frame type %d", frameType);
    }
    int delta;
    if (form == SAME) {
      delta = frameType;
    } else if (form == SAME_LOCALS_1) {
      delta = frameType - SAME_LOCALS_1_STACK_ITEM_MIN;
    } else {
      delta = in.u2();
    }
    int offset = previousOffset + delta + 1;
    if (offset >= codeLength) {
      throw ClassFormatError("a stack map frame at %d lies behind the code of %d bytes", offset, codeLength);
    }
    StackMapFrame* frame = new StackMapFrame(offset, frameType);
    myFrames.push(frame);
    switch (form) {
      case SAME:
      case SAME_EXTENDED:
        copyTypes(*previousLocals, frame->myLocals);
        break;
      case SAME_LOCALS_1:
      case SAME_LOCALS_1_EXTENDED:
        copyTypes(*previousLocals, frame->myLocals);
        frame->myStack.push(readType(in, codeLength));
        break;
      case CHOP: {
        int chopped = SAME_FRAME_EXTENDED - frameType;
        if (chopped > previousLocals->size()) {
          throw ClassFormatError("a stack map frame chops %d of %d locals", chopped, previousLocals->size());
        }
        copyTypes(*previousLocals, frame->myLocals);
        frame->myLocals.removeRange(frame->myLocals.size() - chopped, frame->myLocals.size());
        break;
      }
      case APPEND: {
        copyTypes(*previousLocals, frame->myLocals);
        for (int k = SAME_FRAME_EXTENDED; k < frameType; k++) {
          frame->myLocals.push(readType(in, codeLength));
        }
        break;
      }
      case FULL: {
        int localsCount = in.u2();
        for (int k = 0; k < localsCount; k++) {
          frame->myLocals.push(readType(in, codeLength));
        }
        int stackCount = in.u2();
        for (int k = 0; k < stackCount; k++) {
          frame->myStack.push(readType(in, codeLength));
        }
        break;
      }
      case NONE:
        break;
    }
    previousLocals = &frame->myLocals;
    previousOffset = offset;
  }
  if (!in.atEnd()) {
    throw ClassFormatError("a stack map has bytes behind its last frame");
  }
}

void StackMap::encode(const KVector<VerificationType>& initialLocals, DataOutput& out) const {
  writeCount(out, myFrames.size());
  const KVector<VerificationType>* previousLocals = &initialLocals;
  int previousOffset = -1;
  for (int i = 0; i < myFrames.size(); i++) {
    const StackMapFrame& frame = *myFrames[i];
    int delta = frame.myOffset - previousOffset - 1;
    if (delta < 0 || delta > 0xFFFF) {
      throw ClassFormatError("stack map frames at %d and %d are out of order", previousOffset, frame.myOffset);
    }
    FrameForm form = formOf(frame.myFrameType);
    if (!fits(form, delta, frame, *previousLocals)) {
      form = bestForm(delta, frame, *previousLocals);
    }
    switch (form) {
      case SAME:
        out.writeUnsignedByte(delta);
        break;
      case SAME_EXTENDED:
        out.writeUnsignedByte(SAME_FRAME_EXTENDED);
        out.writeUnsignedShort(static_cast<unsigned int>(delta));
        break;
      case SAME_LOCALS_1:
        out.writeUnsignedByte(SAME_LOCALS_1_STACK_ITEM_MIN + delta);
        writeType(out, frame.myStack[0]);
        break;
      case SAME_LOCALS_1_EXTENDED:
        out.writeUnsignedByte(SAME_LOCALS_1_STACK_ITEM_EXTENDED);
        out.writeUnsignedShort(static_cast<unsigned int>(delta));
        writeType(out, frame.myStack[0]);
        break;
      case CHOP:
        out.writeUnsignedByte(SAME_FRAME_EXTENDED - (previousLocals->size() - frame.myLocals.size()));
        out.writeUnsignedShort(static_cast<unsigned int>(delta));
        break;
      case APPEND:
        out.writeUnsignedByte(SAME_FRAME_EXTENDED + (frame.myLocals.size() - previousLocals->size()));
        out.writeUnsignedShort(static_cast<unsigned int>(delta));
        for (int k = previousLocals->size(); k < frame.myLocals.size(); k++) {
          writeType(out, frame.myLocals[k]);
        }
        break;
      case FULL:
      case NONE:
        out.writeUnsignedByte(FULL_FRAME);
        out.writeUnsignedShort(static_cast<unsigned int>(delta));
        writeCount(out, frame.myLocals.size());
        for (int k = 0; k < frame.myLocals.size(); k++) {
          writeType(out, frame.myLocals[k]);
        }
        writeCount(out, frame.myStack.size());
        for (int k = 0; k < frame.myStack.size(); k++) {
          writeType(out, frame.myStack[k]);
        }
        break;
    }
    previousLocals = &frame.myLocals;
    previousOffset = frame.myOffset;
  }
}

void StackMap::initialLocals(ClassFile& classFile, const MethodInfo& method, KVector<VerificationType>& out) {
  out.clear();
  if (!method.isStatic()) {
    bool constructor = method.getName() == "<init>";
    if (constructor && classFile.getSignature() != "java/lang/Object") {
      out.push(VerificationType::of(VerificationType::ITEM_UNINITIALIZED_THIS));
    } else {
      out.push(VerificationType::of(VerificationType::ITEM_OBJECT, classFile.getThisClass()));
    }
  }
  const char* descriptor = method.getDescriptor().get();
  if (descriptor[0] != '(') {
    throw ClassFormatError("a malformed method descriptor \"%s\"", descriptor);
  }
  int index = 1;
  while (descriptor[index] != ')') {
    int start = index;
    index = skipFieldDescriptor(descriptor, index);
    switch (descriptor[start]) {
      case 'B': case 'C': case 'I': case 'S': case 'Z':
        out.push(VerificationType::of(VerificationType::ITEM_INTEGER));
        break;
      case 'F':
        out.push(VerificationType::of(VerificationType::ITEM_FLOAT));
        break;
      case 'J':
        out.push(VerificationType::of(VerificationType::ITEM_LONG));
        break;
      case 'D':
        out.push(VerificationType::of(VerificationType::ITEM_DOUBLE));
        break;
      default: {
        // A class by its internal name, an array by its descriptor.
        int nameStart = descriptor[start] == 'L' ? start + 1 : start;
        int nameEnd = descriptor[start] == 'L' ? index - 1 : index;
        KString name(descriptor, nameStart, nameEnd);
        out.push(VerificationType::of(VerificationType::ITEM_OBJECT, classFile.findOrCreateConstantClass(name)));
        break;
      }
    }
  }
}
