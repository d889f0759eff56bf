#ifndef KJP_OFFSETTABLE_H
#define KJP_OFFSETTABLE_H

#include "agent/KVector.h"

// Every branch offset of one method: where the branching instruction is, where its offset
// bytes are and how wide they are. Filled by the instruction walk, read when offsets are
// carried to the new code.
class OffsetTable {
 public:
  struct Element {
    int myInstructionIndex;
    int myOffsetIndex;
    bool myIsShort;
  };

  OffsetTable() : myTable(10) {}
  ~OffsetTable();
  OffsetTable(const OffsetTable&) = delete;
  OffsetTable& operator=(const OffsetTable&) = delete;

  void addOffsetToTable(int instructionIndex, int offsetIndex, bool isShort);
  int getSize() const { return myTable.size(); }
  int getInstructionIndex(int indexInTable) const;
  int getOffsetIndex(int indexInTable) const;
  bool isShort(int indexInTable) const;

 private:
  const Element* element(int indexInTable) const;

  KVector<Element*> myTable;
};

#endif
