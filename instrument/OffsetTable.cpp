#include "instrument/OffsetTable.h"

#include "agent/KAssert.h"

OffsetTable::~OffsetTable() {
  for (int i = 0; i < myTable.size(); i++) {
    delete myTable[i];
  }
}

void OffsetTable::addOffsetToTable(int instructionIndex, int offsetIndex, bool isShort) {
  KASSERT(instructionIndex >= 0);
  KASSERT(offsetIndex > 0);
  Element* element = new Element;
  element->myInstructionIndex = instructionIndex;
  element->myOffsetIndex = offsetIndex;
  element->myIsShort = isShort;
  myTable.push(element);
}

const OffsetTable::Element* OffsetTable::element(int indexInTable) const {
  KASSERT(indexInTable < myTable.size());
  return myTable[indexInTable];
}

int OffsetTable::getInstructionIndex(int indexInTable) const { return element(indexInTable)->myInstructionIndex; }

int OffsetTable::getOffsetIndex(int indexInTable) const { return element(indexInTable)->myOffsetIndex; }

bool OffsetTable::isShort(int indexInTable) const { return element(indexInTable)->myIsShort; }
