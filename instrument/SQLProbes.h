#ifndef KJP_SQLPROBES_H
#define KJP_SQLPROBES_H

class ClassFile;
class MethodInfo;

// The J2EE probes: the entry and exit reports of the catalogue's JDBC, servlet, dispatching and
// JNDI methods (J2EEHelper), byte for byte.
//
// A probe asks kjpIsJ2EEClass(this) whether the receiver's class really implements one of the
// catalogue's interfaces, and multiplies the J2EE method type by the answer: the native it then
// calls hears type 0 for a class that only shares a method's name and descriptor, and ignores
// the call. A probe thus has no branch, so it needs no stack-map frame of its own and is right
// wherever it stands, inside exception ranges too, whatever the locals hold there.
//
// Every probe is 20 bytes, padded with nops: a multiple of 4, so that switch padding stays right
// without special cases.
#define SQL_ENTRY_CODE_LENGTH 20
#define SQL_RETURN_1_CODE_LENGTH 20
#define SQL_RETURN_2_CODE_LENGTH 20

// Site kinds of the J2EE exit probes, one for each J2EE instrumentation type 1 to 5.
enum SQLSiteKind {
  SITE_SQL_RETURN_TYPE_1 = 7,
  SITE_SQL_RETURN_TYPE_2 = 8,
  SITE_SQL_RETURN_TYPE_3 = 9,
  SITE_SQL_RETURN_TYPE_4 = 10,
  SITE_SQL_RETURN_TYPE_5 = 11,
};

// The entry probe of a method of J2EE instrumentation type 'instrumentationType', reporting
// 'methodType' through the native 'entryIndex'. Types 1, 3 and 5 first save the first parameter
// in the local 'parameterVariable', which their exits report. Returns the length written.
int insertSQLEntryCode(int entryIndex, int methodType, unsigned char* buffer, int offset, int instrumentationType,
                       int isJ2EEClassIndex, int parameterVariable);

// The exit probe, placed right before a return instruction. Type 1 also reports the value that
// areturn is about to return, which stays on the stack. Returns the length written.
int insertSQLExitCode(int exitIndex, int methodType, unsigned char* buffer, int offset, int instrumentationType,
                      int isJ2EEClassIndex, int parameterVariable);

// The code before the return instruction of a site of 'kind' (7 to 11).
int insertSQLCodeBefore(int kind, int exitIndex, int methodType, unsigned char* buffer, int offset,
                        int isJ2EEClassIndex, int parameterVariable);

// One insertion pass of the J2EE probes over a non-static method of J2EE instrumentation type
// 1 to 5 (which picks the pair of natives among the six SQL ones and the two servlet ones), on
// code that may already hold the tracing probes: the entry probe goes in front of everything,
// an exit probe right before each return. The Index arguments are pool indices of method
// references on the callback class. Returns whether the method was changed; it is not when the
// new code would be too long, a short branch would no longer reach, or the code writes local 0,
// which the probes read as 'this'. Throws ClassFormatError for code that cannot be read.
bool instrumentForSQLTracing(ClassFile& classFile, MethodInfo* method, int sqlEntry1Index, int sqlExit1Index,
                             int sqlEntry2Index, int sqlExit2Index, int sqlEntry3Index, int sqlExit3Index,
                             int servletEntryIndex, int servletExitIndex, int j2eeInstrumentationType,
                             int isJ2EEClassIndex, int j2eeMethodType);

#endif
