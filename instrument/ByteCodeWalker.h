#ifndef KJP_BYTECODEWALKER_H
#define KJP_BYTECODEWALKER_H

class OffsetTable;

// Reading bytecode and stepping through it instruction by instruction, the one walk that
// every pass of the instrumentation shares.

// The unsigned byte at beginIndex.
int readByte(const char* input, int beginIndex);
// Two bytes, big-endian, sign-extended as branch offsets are.
int readInt2(const char* input, int beginIndex);
// Two bytes, big-endian, unsigned: pool and local indices.
int readUnsignedInt2(const char* input, int beginIndex);
int readInt4(const char* input, int beginIndex);

// Instruction lengths by opcode for the instructions of fixed length; 0 for an opcode that
// is not defined in class files, -1 for tableswitch, lookupswitch and wide, whose length
// depends on their operands.
extern const int ourOpCodeLength[256];

// The length of the instruction at 'index' in 'code'. Adds the instruction's branch offsets
// to 'table' when it is not null. Throws ClassFormatError for bytes that are no valid
// instruction: an undefined opcode, an instruction that runs past the code, a branch whose
// target lies outside it.
int walkInstruction(const unsigned char* code, int codeLength, int index, OffsetTable* table);

#endif
