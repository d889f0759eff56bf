#ifndef KJP_LOCALVARIABLEPATCHER_H
#define KJP_LOCALVARIABLEPATCHER_H

#include "agent/KVector.h"

class CodeAttribute;
class LocalVariable;

// Code of 'addedLength' bytes was put in front of the method: variables that start at 0
// (the parameters) stay in scope over it, the others move behind it.
void patchLocalVariables1(const KVector<LocalVariable*>& variables, int addedLength);

// The code moved by 'indices' (old index to new index, for each of the oldLength old
// bytes); a variable that reached the old end reaches the new end.
void patchLocalVariables2(const KVector<LocalVariable*>& variables, const int* indices, int oldLength, int newLength);

// Both tables of 'code' where present.
void patchAllLocalVariables1(CodeAttribute* code, int addedLength);
void patchAllLocalVariables2(CodeAttribute* code, const int* indices, int oldLength, int newLength);

#endif
