#ifndef KJP_OPTIONS_H
#define KJP_OPTIONS_H

#include <jni.h>

#include "agent/KString.h"
#include "agent/KVectorSafe.h"

// Fills 'result', which must be empty, with the arguments of this process as the kernel keeps
// them in /proc/<pid>/cmdline. At most 131071 bytes are read; a longer command line is cut
// there.
void getCommandLineParameters(KVectorSafe<KString>* result);
// The same over any file of NUL-separated arguments. A file that can't be opened or read
// leaves 'result' empty: the agent must load even where /proc is missing or odd.
void getCommandLineParameters(KVectorSafe<KString>* result, const char* path);

// What the user asked for with -agentlib:kjpagent=..., together with what the agent learns
// from the JVM's own command line (main class, heap size, heap dump settings, debugger).
// Owned strings are new[] memory. Values marked "quoted" may be in the hex-quoted form of
// unquote() and are unquoted by whoever uses them.
class Options {
 public:
  // Reads the command line of this process.
  Options();
  // Reads the command line from a file in the format of /proc/<pid>/cmdline.
  explicit Options(const char* cmdlinePath);
  // Takes the command line as given; for callers that already hold the arguments.
  Options(const char* const* arguments, jint count);
  ~Options();

  Options(const Options&) = delete;
  Options& operator=(const Options&) = delete;

  // Parses the comma-separated agent options. False means the options are wrong: the reason
  // and the usage have been printed to stdout and the agent must not start.
  bool parse(char* options);
  void printUsage();
  // Maps an old spelling to the current one and warns about it; returns the option to use.
  const char* handleDeprecatedOption(const char* option);
  // True if the option is one that only a JVMTI agent can serve; sets its field.
  bool handleJVMTISpecificOption(const char* option);

  // The session name as the Java runtime gets it: the sessionname option if given (still
  // quoted), else the simple name of the main class or jar.
  KString getSessionName();
  // Maximum heap size given with -Xmx, in bytes; 64 MiB if none is given with a unit.
  long getXmxValue();
  // True if an argument after the launcher starts with 'prefix'.
  bool containsVMArgument(const char* prefix);
  // Where the JVM would write a heap dump; new[] memory owned by the caller, may be null.
  char* getHeapDumpPath();
  bool isHeapDumpOnOutOfMemoryErrorEnabled();

  char* myProfiledSessionName;  // quoted
  KVectorSafe<KString> myCommandLine;
  bool mySampling;
  // "asyncsampling": CPU sampling by per-thread CPU timers; with "tracing", the source of its times.
  bool myAsyncSampling;
  bool myTracing;
  // Where tracing takes its times ("tracingtimes="): one of the TRACING_TIMES_ values.
  int myTracingTimes;
  static const int TRACING_TIMES_AUTO = 0;
  static const int TRACING_TIMES_SAMPLED = 1;
  static const int TRACING_TIMES_CLOCK = 2;
  // The timers of "asyncsampling" ("asynctimer="): one of the ASYNC_TIMER_ values.
  int myAsyncTimer;
  static const int ASYNC_TIMER_AUTO = 0;
  static const int ASYNC_TIMER_PERF = 1;
  static const int ASYNC_TIMER_POSIX = 2;
  bool myNoJ2EE;
  bool myDisableAlloc;
  bool myDisableCounts;
  bool myDisableJ2EE;
  bool myAllocAtStart;
  bool myRecordEachEnabled;
  int myRecordEach;
  bool mySizeLimitEnabled;
  int mySizeLimit;  // bytes
  bool myMonitors;
  // No exception events at all: exceptions go uncounted, and the JVM throws at full speed.
  bool myDisableExceptions;
  bool myWithDebugger;
  int myTelemetryLimit;  // seconds
  bool myPrintInstrTimes;
  bool myPrintPercents;
  bool myPrintStringGCTimes;
  bool myPrintFilters;
  bool myDebugPageFile;
  bool myDebugJNI;
  int myDelay;  // milliseconds
  bool myOldIBM;
  bool myProcessMemoryTelemetry;
  int mySamplingPeriod;  // milliseconds
  int myPort;
  char* myHost;
  int myIdePort;
  bool myQuiet;
  char* myDir;  // quoted
  char* myTmpDir;
  char* myProfilerUIPath;  // quoted
  bool myOnExitMemory;
  bool myOnExitSnapshot;
  bool myOnlyLocal;
  int myUsedMem;  // percent
  char* myFilters;  // path, already unquoted; consumed at VM init
  char* myWallTimeSpec;  // path, already unquoted; consumed at VM init

 private:
  void setDefaults();
  bool parseOption(const char* option);
  bool checkCombinations();
  bool reportError(const char* format, const char* argument = nullptr);
};

extern Options ourOptions;

#endif
