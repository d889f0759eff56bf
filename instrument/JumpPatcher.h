#ifndef KJP_JUMPPATCHER_H
#define KJP_JUMPPATCHER_H

#include "agent/KSet.h"

class ClassFile;
class MethodInfo;
class OffsetTable;

// Carrying branch offsets to the new code, and widening short branches that no longer
// reach.
//
// The sets of branches passed around here hold instruction index + 1, not the index:
// KSet cannot hold the key 0, and a method may well begin with a short branch (a loop whose
// condition is tested first). branchKey and branchIndex convert.
inline int branchKey(int instructionIndex) { return instructionIndex + 1; }
inline int branchIndex(int key) { return key - 1; }

// The inverse of a conditional branch; goto and jsr become their wide forms.
int convertJump(int opcode);

// Rewrites each offset of 'table' in 'code' for the new positions in 'indices' (old index
// to new index). A short offset that no longer fits in 16 bits fails: with 'instructions'
// null the call returns false at once; otherwise the branch is added to 'instructions' and
// the walk goes on, so that one call collects every branch that needs widening. Returns
// whether every offset fitted.
bool updateOffsets(KSet<int>* instructions, const OffsetTable& table, char* code, const int* indices);

// Writes the widened form of each branch in 'instructions' into 'output', where 'indices'
// has already made room for it: 'input' is the code before widening, in which those
// branches still hold their old offsets. goto and jsr become goto_w and jsr_w and two nops
// (7 bytes); a conditional branch becomes its inverse jumping over a goto_w to the old
// target and three nops (11 bytes).
void updateOffsets2LongOffsets(KSet<int>* instructions, const char* input, unsigned char* output, const int* indices);

// Widens the listed short branches of the method's code. The method keeps its behaviour;
// its code, exception table, line numbers and local variables move accordingly. Returns
// whether the widened code was committed (it is not if it would be too long).
bool modifyJumps(ClassFile& classFile, MethodInfo* method, KSet<int>* instructions);

#endif
