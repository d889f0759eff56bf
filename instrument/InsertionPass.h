#ifndef KJP_INSERTIONPASS_H
#define KJP_INSERTIONPASS_H

#include "agent/KSet.h"
#include "agent/KVector.h"
#include "classfile/StackMap.h"

class ClassFile;
class CodeAttribute;
class InsertionPass;
class MethodInfo;

// One place in a method's code where a probe goes: code before the instruction, code after
// it, or both.
struct InsertionSite {
  int myKind;      // what the probe set calls it; may change while the walk goes on
  int myOldIndex;  // the instruction's index in the old code
  int myNewIndex;  // where the code inserted before it begins in the new code
  int myLength;    // the instruction's length
  int myValue;     // for the probe set: a method index, say
  int myAdded;     // bytes inserted at this site, before and after together
};

// What a particular kind of instrumentation adds: it picks the sites while the pass walks
// the code, and writes the bytes of each site and of the entry code.
class ProbeSet {
 public:
  virtual ~ProbeSet() {}
  // Called for each instruction in order; adds sites through pass.addSite.
  virtual void visit(InsertionPass& pass, const unsigned char* code, int codeLength, int index, int length) = 0;
  // Both return the number of bytes written.
  virtual int insertBefore(const InsertionSite& site, unsigned char* buffer, int offset) = 0;
  virtual int insertAfter(const InsertionSite& site, unsigned char* buffer, int offset) = 0;
  // The code put in front of the method once the sites are in, or length 0 for none.
  virtual int getEntryCodeLength() = 0;
  virtual void insertEntryCode(unsigned char* buffer, int offset) = 0;
  // Whether the site leaves a second copy of the object that its 'new' made on the operand
  // stack until the constructor call (a dup behind a new that had none), which the stack
  // map frames in between must show.
  virtual bool leavesCopyOfNew(const InsertionSite& site) { (void)site; return false; }
};

// The insertion pass: grows a method's code at the sites a probe set picks, carrying every
// branch, switch, exception range, line number, local-variable range and stack-map frame to
// its new place, then prepends the entry code.
//
// Branches are moved through one index map: a branch to a site lands on the code inserted
// before it, a branch to the instruction behind a site lands behind everything inserted
// there. The entry code goes in last by a plain shift, so a loop back to the old start does
// not run it again.
class InsertionPass {
 public:
  InsertionPass(ClassFile& classFile, MethodInfo* method, ProbeSet& probes);
  ~InsertionPass();
  InsertionPass(const InsertionPass&) = delete;
  InsertionPass& operator=(const InsertionPass&) = delete;

  // A local of the agent that every stack-map frame of the new code must show (its first
  // store is in the entry code).
  void addFrameLocal(int slot, const VerificationType& type);

  // For the probe set, during the walk.
  void addSite(int kind, int index, int length, int value, int addedBytes);
  int getSiteCount() const { return mySites.size(); }
  InsertionSite& getSite(int i) { return mySites[i]; }

  // Runs the pass. 'instructions' collects the short branches that no longer reach, or is
  // null to fail at the first. The new length, without the entry code, must stay below
  // 'lengthLimit'. On success the method holds the new code and the stack limit has grown by
  // twice 'stackIncrement'; on failure the method is as it was. Throws ClassFormatError for
  // code or frames that cannot be read.
  bool run(KSet<int>* instructions, int lengthLimit, int stackIncrement);

 private:
  void moveFrames(StackMap& stackMap, const int* indices, int oldLength, int entryLength);

  ClassFile& myClassFile;
  MethodInfo* myMethod;
  ProbeSet& myProbes;
  KVector<InsertionSite> mySites;
  KVector<int> myFrameLocalSlots;
  KVector<VerificationType> myFrameLocalTypes;
  int* myIndices;
  int myOldLength;
  int myTotal;
};

#endif
