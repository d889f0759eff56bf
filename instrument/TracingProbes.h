#ifndef KJP_TRACINGPROBES_H
#define KJP_TRACINGPROBES_H

#include <jni.h>

// The probes of tracing and allocation recording, byte for byte. Each emitter assembles
// its probe, copies it to buffer + offset, checks the length against its constant and
// returns it. Method indices travel as two sipush operands (low 16 bits, then high), the
// local kjpIdx is always reached through wide.
//
// In a method with a switch every probe is padded with nops to a multiple of 4 bytes, so
// that the switch padding stays right (see SwitchDetector).

#define ENTRY_CODE_LENGTH(containsSwitch) ((containsSwitch) ? 16 : 14)
#define EXIT_CODE_LENGTH(containsSwitch) ((containsSwitch) ? 12 : 9)
#define NATIVE_ENTRY_CALL_CODE_LENGTH(containsSwitch) ((containsSwitch) ? 12 : 9)
#define ALLOC_ONLY_ENTRY_CODE_LENGTH 8
#define NEW_WITHOUT_DUP_CODE_START_LENGTH 4
#define TYPE_NEW_END_CODE_LENGTH 12
#define NEWARRAY_CODE_LENGTH 12

// Site kinds of the tracing and allocation probes.
enum TracingSiteKind {
  SITE_RETURN = 1,             // exit probe before a return
  SITE_NEW_WITHOUT_DUP = 2,    // dup and three nops behind a new whose reference the constructor takes
  SITE_NEW_NOT_RECORDED = 3,   // four nops: a stack shuffle ruled the probe out
  SITE_NEW_ARRAY = 4,          // array probe behind newarray, anewarray, multianewarray
  SITE_INIT_WITH_DUP = 5,      // object probe with dup behind the constructor call
  SITE_INIT_WITHOUT_DUP = 6,   // object probe taking the spare reference of kind 2
  SITE_IO_CALL = 12,           // callee entry and exit around an I/O call
};

int insertEntryCode(int methodEntryIndex, jint methodIndex, unsigned char* buffer, int offset, int local,
                    bool containsSwitch);
int insertAllocOnlyEntryCode(unsigned char* buffer, int offset, int local);
int insertExitCode(int methodExitIndex, jint methodIndex, unsigned char* buffer, int offset, bool containsSwitch);
int insertNativeEntryCode(int methodEntryIndex, jint methodIndex, unsigned char* buffer, int offset,
                          bool containsSwitch);
int insertNewCodeStart(unsigned char* buffer, int offset, int kind);
int insertNewCodeEnd(int initIndex, unsigned char* buffer, int offset, int kind, int local);
int insertNewArrayCode(int initIndex, unsigned char* buffer, int offset, int local);

// The code before and after the instruction of a site of 'kind'.
int insertCodeBefore(int kind, int methodExitIndex, int methodEntryIndex, jint methodIndex, unsigned char* buffer,
                     int offset, bool containsSwitch);
int insertCodeAfter(int kind, int initIndex, int methodExitIndex, unsigned char* buffer, int offset, int local,
                    jint methodIndex, bool containsSwitch);

#endif
