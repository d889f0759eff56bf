#include "agent/Options.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KHelpers.h"
#include "agent/TextUtil.h"

// Built at library load, before the JVM calls us, so that the command line is known when the
// options are parsed.
Options ourOptions;

namespace {

// The kernel hands out the whole command line; we keep what fits in this buffer and cut the
// rest, which only ever holds arguments after the main class.
const int COMMAND_LINE_BUFFER_SIZE = 131072;
// Longest agent option plus its terminator. The option string comes from the user, so a
// token that doesn't fit is refused rather than cut.
const int OPTION_BUFFER_SIZE = 4096;

const int DEFAULT_RECORD_EACH = 10;
const int DEFAULT_SIZE_LIMIT = 1048576;
const int DEFAULT_TELEMETRY_LIMIT_SECONDS = 3600;
const int DEFAULT_SAMPLING_PERIOD_MS = 20;
const long DEFAULT_XMX = 67108864;

// An IDE launches programs through this class, with the real main class as its first
// argument.
const char* const IDE_LAUNCHER_CLASS = "com.intellij.rt.execution.application.AppMain";

const char* const USAGE_LINES[] = {
    KJP_PRODUCT_NAME " JVMTI agent usage: -agentlib:kjpagent=[help]|[<option>, ...]",
    "",
    "Option             Description",
    "------------------ ----------------------------------------",
    "port=<value>       port to listen on (1-65535, by default any free port is chosen)",
    "listen=<ip>:<port> same as 'port', but bind agent socket to particular IP only",
    "onlylocal          allow only local connections to profiled application",
    "dir=<custom dir>   directory where snapshots are created (by default <user home>/Snapshots)",
    "telemetrylimit=<N> limit telemetry buffer capacity to N hours (approximately)",
    "sampling           startup with CPU sampling",
    "asyncsampling      startup with CPU sampling driven by each thread's CPU time, without",
    "                   safepoints; with 'tracing', tracing takes its times from these samples",
    "tracing            startup with CPU tracing",
    "                   (cannot be used together with 'disablecounts')",
    "noj2ee             do not perform J2EE high level profiling",
    "                   (use only in combination with 'sampling' or 'tracing')",
    "alloceach=<N>      startup with object allocation recording: record each N-th allocation;",
    "                   can be used together with 'allocsizelimit';",
    "                   cannot be used together with 'disablealloc'",
    "allocsizelimit=<B> startup with object allocation recording: record objects with size >= B bytes",
    "                   can be used together with 'alloceach';",
    "                   cannot be used together with 'disablealloc'",
    "monitors           startup with monitor usage profiling",
    "usedmem=<percent>  capture memory snapshot automatically when used heap memory",
    "                   reaches the threshold",
    "onexit=memory      always capture memory snapshot on exit",
    "disablealloc       do not instrument bytecode for object allocation recording",
    "disablecounts      do not instrument bytecode for CPU tracing",
    "disablej2ee        do not instrument bytecode for J2EE profiling",
    "disablestacktelemetry",
    "                   do not collect thread stack and status information",
    "quiet              suppress diagnostic messages",
    "help               print this usage and stop the JVM",
    "tmpdir=<dir>       directory for the agent's temporary jar (by default /tmp)",
    "samplingperiod=<ms>",
    "                   time between two CPU samples (by default 20)",
    "tracingtimes=sampled|clock",
    "                   tracing takes its times from samples, or from the thread CPU clock at",
    "                   every call (by default the clock, unless reading it is slow)",
    "asynctimer=perf|posix",
    "                   the timers of 'asyncsampling': the kernel's perf task clock (the default",
    "                   where the kernel allows it) or POSIX CPU timers, which fire at clock ticks",
    "alloc              startup with object allocation recording of every allocation",
    "allocadaptive      startup with object allocation recording of every 10th allocation",
    "                   and of every object of at least 1 MB",
    "onexit=snapshot    always capture a snapshot (without heap) on exit",
    "filters=<file>     the methods that tracing folds into their callers (see the README)",
    "walltimespec=<file>",
    "                   the methods that are timed by the wall clock (see the README)",
    "disableexceptions  do not count exceptions: a JVM that may report them deoptimizes",
    "                   the code of every throw, which costs throw-heavy programs dearly",
    "sessionname=<name> name of the session in snapshot names and in the profiler",
    "delay=<ms>         start the agent's runtime that much later",
    "withdebugger       leave out what conflicts with a debugger in the same JVM",
    "profileruipath=<path>, ideport=<port>",
    "                   a profiler UI to launch at start-up and the IDE port it talks to",
    "",
    "Please find detailed description in the Help section \"Startup options\":",
    "https://github.com/kestrix/kjpagent#startup-options",
    "",
    "Examples:",
    "java -agentlib:kjpagent FooClass",
    "java -agentlib:kjpagent=alloceach=10,allocsizelimit=1000000,dir=c:\\MySnapshots FooClass",
    "java -agentlib:kjpagent=usedmem=70 FooClass",
};

// The value of 'option' if it is 'name' (which ends in '=') followed by a value, else null.
const char* valueOf(const char* option, const char* name) {
  size_t nameLength = strlen(name);
  return strncmp(option, name, nameLength) == 0 ? option + nameLength : nullptr;
}

// Replaces an owned string, so that an option given twice doesn't leak the first value.
void replaceString(char** field, char* value) {
  delete[] *field;
  *field = value;
}

bool containsDigit(const char* text) {
  for (; *text != 0; text++) {
    if (*text >= '0' && *text <= '9') {
      return true;
    }
  }
  return false;
}

// The part of 'text' after the last 'separator', or all of it.
const char* afterLast(const char* text, char separator) {
  const char* last = strrchr(text, separator);
  return last == nullptr ? text : last + 1;
}

}  // namespace

void getCommandLineParameters(KVectorSafe<KString>* result) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/cmdline", static_cast<int>(getpid()));
  getCommandLineParameters(result, path);
}

void getCommandLineParameters(KVectorSafe<KString>* result, const char* path) {
  KASSERT(result->size() == 0);
  int fd = open(path, O_RDONLY);
  if (fd < 0) {
    return;
  }
  char* buffer = new char[COMMAND_LINE_BUFFER_SIZE];
  // A read of /proc may return less than there is; keep reading until the buffer is full
  // or the file ends. An error (a directory, say) ends the reading with what was got.
  int length = 0;
  while (length < COMMAND_LINE_BUFFER_SIZE - 1) {
    ssize_t got = read(fd, buffer + length, static_cast<size_t>(COMMAND_LINE_BUFFER_SIZE - 1 - length));
    if (got <= 0) {
      break;
    }
    length += static_cast<int>(got);
  }
  close(fd);
  buffer[length] = 0;

  // Arguments end in NUL. Empty arguments are real arguments and are kept; an argument cut
  // by the buffer's end is kept as far as it goes.
  int start = 0;
  for (int i = 0; i < length; i++) {
    if (buffer[i] == 0) {
      result->push(KString(buffer + start, i - start));
      start = i + 1;
    }
  }
  if (start < length) {
    result->push(KString(buffer + start, length - start));
  }
  delete[] buffer;
}

Options::Options() : myCommandLine(32) {
  getCommandLineParameters(&myCommandLine);
  setDefaults();
}

Options::Options(const char* cmdlinePath) : myCommandLine(32) {
  getCommandLineParameters(&myCommandLine, cmdlinePath);
  setDefaults();
}

Options::Options(const char* const* arguments, jint count) : myCommandLine(count > 0 ? count : 1) {
  for (jint i = 0; i < count; i++) {
    myCommandLine.push(KString(arguments[i]));
  }
  setDefaults();
}

Options::~Options() {
  delete[] myProfiledSessionName;
  delete[] myHost;
  delete[] myDir;
  delete[] myTmpDir;
  delete[] myProfilerUIPath;
  delete[] myFilters;
  delete[] myWallTimeSpec;
}

void Options::setDefaults() {
  myProfiledSessionName = nullptr;
  mySampling = false;
  myAsyncSampling = false;
  myTracing = false;
  myTracingTimes = TRACING_TIMES_AUTO;
  myAsyncTimer = ASYNC_TIMER_AUTO;
  myNoJ2EE = false;
  myDisableAlloc = false;
  myDisableCounts = false;
  myDisableJ2EE = false;
  myAllocAtStart = false;
  myRecordEachEnabled = false;
  myRecordEach = DEFAULT_RECORD_EACH;
  mySizeLimitEnabled = false;
  mySizeLimit = DEFAULT_SIZE_LIMIT;
  myMonitors = false;
  myDisableExceptions = false;
  myTelemetryLimit = DEFAULT_TELEMETRY_LIMIT_SECONDS;
  myPrintInstrTimes = false;
  myPrintPercents = false;
  myPrintStringGCTimes = false;
  myPrintFilters = false;
  myDebugPageFile = false;
  myDebugJNI = false;
  myDelay = 0;
  myOldIBM = false;
  myProcessMemoryTelemetry = false;
  mySamplingPeriod = DEFAULT_SAMPLING_PERIOD_MS;
  myPort = -1;
  myHost = nullptr;
  myIdePort = -1;
  myQuiet = false;
  myDir = nullptr;
  myTmpDir = nullptr;
  myProfilerUIPath = nullptr;
  myOnExitMemory = false;
  myOnExitSnapshot = false;
  myOnlyLocal = false;
  myUsedMem = 0;
  myFilters = nullptr;
  myWallTimeSpec = nullptr;
  // A debugger may suspend threads and read locals itself; the capabilities the agent asks
  // for must leave those to it.
  myWithDebugger = containsVMArgument("-Xdebug") || containsVMArgument("-Xrunjdwp") ||
                   containsVMArgument("-agentlib:jdwp");
}

void Options::printUsage() {
  for (size_t i = 0; i < sizeof(USAGE_LINES) / sizeof(USAGE_LINES[0]); i++) {
    fputs(USAGE_LINES[i], stdout);
    fputc('\n', stdout);
  }
  fflush(stdout);
}

// Prints one option error to stdout. The format has the product's cannot-start text as its
// first %s and 'argument', if it uses one, as its second.
static void printOptionError(const char* format, const char* argument) {
  printf(format, KJP_CANNOT_START, argument);
  fflush(stdout);
}

bool Options::reportError(const char* format, const char* argument) {
  printOptionError(format, argument);
  printUsage();
  return false;
}

const char* Options::handleDeprecatedOption(const char* option) {
  KASSERT(option != nullptr);
  const char* replacement = nullptr;
  if (strcmp(option, "cpu=times") == 0) {
    replacement = "sampling";
  } else if (strcmp(option, "cpu=full") == 0 || strcmp(option, "cpu=nolib") == 0) {
    replacement = "tracing";
  }
  if (replacement == nullptr) {
    return option;
  }
  if (!myQuiet) {
    fprintf(stderr, KJP_LOG_PREFIX "*** WARNING! *** '%s' option is deprecated; use '%s' instead.\n", option,
            replacement);
    fflush(stderr);
  }
  return replacement;
}

bool Options::handleJVMTISpecificOption(const char* option) {
  if (strcmp(option, "tracing") == 0) {
    myTracing = true;
  } else if (strcmp(option, "noj2ee") == 0) {
    myNoJ2EE = true;
  } else if (strcmp(option, "disablealloc") == 0) {
    myDisableAlloc = true;
  } else if (strcmp(option, "disablecounts") == 0) {
    myDisableCounts = true;
  } else if (strcmp(option, "disablej2ee") == 0) {
    // Without the J2EE probes in the bytecode there is nothing for J2EE profiling to measure.
    myDisableJ2EE = true;
    myNoJ2EE = true;
  } else if (strcmp(option, "monitors") == 0) {
    myMonitors = true;
  } else if (strcmp(option, "disableexceptions") == 0) {
    myDisableExceptions = true;
  } else {
    return false;
  }
  return true;
}

bool Options::parse(char* options) {
  if (options == nullptr) {
    return true;
  }
  if (strcmp(options, "help") == 0) {
    printUsage();
    return false;
  }

  // No quoting and no trimming: a comma always ends a token, which is why values that may
  // hold one travel hex-quoted. A trailing comma ends the string; any other empty token is
  // passed on and reported as unknown.
  char token[OPTION_BUFFER_SIZE];
  const char* p = options;
  while (*p != 0) {
    const char* end = strchr(p, ',');
    size_t length = end == nullptr ? strlen(p) : static_cast<size_t>(end - p);
    if (length >= static_cast<size_t>(OPTION_BUFFER_SIZE)) {
      return reportError("%s: invalid options\n\n");
    }
    memcpy(token, p, length);
    token[length] = 0;
    p = end == nullptr ? p + length : end + 1;

    if (!parseOption(token)) {
      return false;
    }
  }
  return checkCombinations();
}

bool Options::parseOption(const char* token) {
  const char* option = handleDeprecatedOption(token);
  if (handleJVMTISpecificOption(option)) {
    if (ourJVMTI == nullptr) {
      return reportError("%s: '%s' is supported in JVMTI only\n\n", option);
    }
    return true;
  }

  const char* value;
  if (strcmp(option, "sampling") == 0) {
    mySampling = true;
  } else if (strcmp(option, "asyncsampling") == 0) {
    myAsyncSampling = true;
  } else if ((value = valueOf(option, "tracingtimes=")) != nullptr) {
    if (strcmp(value, "sampled") == 0) {
      myTracingTimes = TRACING_TIMES_SAMPLED;
    } else if (strcmp(value, "clock") == 0) {
      myTracingTimes = TRACING_TIMES_CLOCK;
    } else {
      return reportError("%s: 'tracingtimes=' takes 'sampled' or 'clock'\n\n");
    }
  } else if ((value = valueOf(option, "asynctimer=")) != nullptr) {
    if (strcmp(value, "perf") == 0) {
      myAsyncTimer = ASYNC_TIMER_PERF;
    } else if (strcmp(value, "posix") == 0) {
      myAsyncTimer = ASYNC_TIMER_POSIX;
    } else {
      return reportError("%s: 'asynctimer=' takes 'perf' or 'posix'\n\n");
    }
  } else if (strcmp(option, "alloc") == 0) {
    myAllocAtStart = true;
    myRecordEachEnabled = true;
    myRecordEach = 1;
    mySizeLimitEnabled = false;
    mySizeLimit = DEFAULT_SIZE_LIMIT;
  } else if (strcmp(option, "allocadaptive") == 0) {
    myAllocAtStart = true;
    myRecordEachEnabled = true;
    myRecordEach = 10;
    mySizeLimitEnabled = true;
    mySizeLimit = DEFAULT_SIZE_LIMIT;
  } else if ((value = valueOf(option, "alloceach=")) != nullptr) {
    // Recording each N-th allocation divides by N.
    int recordEach = atoi(value);
    if (recordEach < 1) {
      return reportError("%s: 'alloceach' value is invalid\n\n");
    }
    myAllocAtStart = true;
    myRecordEachEnabled = true;
    myRecordEach = recordEach;
  } else if ((value = valueOf(option, "allocsizelimit=")) != nullptr) {
    myAllocAtStart = true;
    mySizeLimitEnabled = true;
    mySizeLimit = atoi(value);
  } else if ((value = valueOf(option, "port=")) != nullptr) {
    myPort = atoi(value);
    if (myPort < 1 || myPort > 65535) {
      return reportError("%s: port is invalid\n\n");
    }
  } else if ((value = valueOf(option, "listen=")) != nullptr) {
    // The last colon separates the port, so that a host part may hold colons itself.
    const char* colon = strrchr(value, ':');
    const char* portText = value;
    if (colon != nullptr) {
      size_t hostLength = static_cast<size_t>(colon - value);
      char* host = new char[hostLength + 1];
      memcpy(host, value, hostLength);
      host[hostLength] = 0;
      replaceString(&myHost, host);
      portText = colon + 1;
    }
    myPort = atoi(portText);
    if (myPort < 1 || myPort > 65535) {
      return reportError("%s: port is invalid\n\n");
    }
  } else if (strcmp(option, "quiet") == 0) {
    myQuiet = true;
  } else if (strcmp(option, "printInstrTimes") == 0) {
    myPrintInstrTimes = true;
  } else if (strcmp(option, "printStringGCTimes") == 0) {
    myPrintStringGCTimes = true;
  } else if (strcmp(option, "printFilters") == 0) {
    myPrintFilters = true;
  } else if (strcmp(option, "printPercents") == 0) {
    myPrintPercents = true;
  } else if (strcmp(option, "debugPageFile") == 0) {
    myDebugPageFile = true;
  } else if (strcmp(option, "debugjni") == 0) {
    myDebugJNI = true;
  } else if (strcmp(option, "oldibm") == 0) {
    myOldIBM = true;
  } else if (strcmp(option, "processmemorytelemetry") == 0) {
    myProcessMemoryTelemetry = true;
  } else if (strcmp(option, "withdebugger") == 0) {
    myWithDebugger = true;
  } else if (strcmp(option, "disablestacktelemetry") == 0) {
    // Cleared at once: telemetry reads the bit from its first pass on.
    ourStatus = ourStatus & ~STACK_TELEMETRY;
  } else if (strcmp(option, "specialstartup") == 0) {
    myDelay = 1;
  } else if ((value = valueOf(option, "delay=")) != nullptr) {
    myDelay = atoi(value);
    if (myDelay < 0) {
      return reportError("%s: 'delay' is invalid\n\n");
    }
  } else if ((value = valueOf(option, "telemetrylimit=")) != nullptr) {
    int hours = atoi(value);
    if (hours < 1) {
      return reportError("%s: 'telemetrylimit' value is invalid: number of hours should not be less than 1\n\n");
    }
    // More hours than an int of seconds holds mean "no practical limit".
    myTelemetryLimit = hours > INT_MAX / 3600 ? INT_MAX : hours * 3600;
  } else if (strcmp(option, "onlylocal") == 0) {
    myOnlyLocal = true;
  } else if (strcmp(option, "onexit=memory") == 0) {
    myOnExitMemory = true;
  } else if (strcmp(option, "onexit=snapshot") == 0) {
    myOnExitSnapshot = true;
  } else if (strcmp(option, "onexit=cpu") == 0) {
    // Old scripts still pass these; they must keep starting, and the note is shown even
    // with 'quiet' so that their authors learn of it.
    fputs(KJP_LOG_PREFIX "*** Warning ***: 'onexit=cpu' option is obsolete and will be ignored\n", stderr);
    fflush(stderr);
  } else if (strcmp(option, "onexit=both") == 0) {
    fputs(KJP_LOG_PREFIX
          "*** Warning ***: 'onexit=both' option is deprecated; 'onexit=memory' will be used instead\n",
          stderr);
    fflush(stderr);
    myOnExitMemory = true;
  } else if ((value = valueOf(option, "usedmem=")) != nullptr) {
    int usedMem = atoi(value);
    if (!containsDigit(value) || usedMem < 50 || usedMem > 90) {
      return reportError("%s: usedmem parameter is invalid; should be an integer in the range 50..90\n\n");
    }
    myUsedMem = usedMem;
  } else if ((value = valueOf(option, "dir=")) != nullptr) {
    replaceString(&myDir, k_strdup(value));
  } else if ((value = valueOf(option, "tmpdir=")) != nullptr) {
    replaceString(&myTmpDir, k_strdup(value));
  } else if ((value = valueOf(option, "filters=")) != nullptr) {
    // Native code opens these files, so they are unquoted here, once.
    replaceString(&myFilters, unquote(value));
  } else if ((value = valueOf(option, "walltimespec=")) != nullptr) {
    replaceString(&myWallTimeSpec, unquote(value));
  } else if ((value = valueOf(option, "sessionname=")) != nullptr) {
    replaceString(&myProfiledSessionName, k_strdup(value));
  } else if ((value = valueOf(option, "profileruipath=")) != nullptr) {
    replaceString(&myProfilerUIPath, k_strdup(value));
  } else if ((value = valueOf(option, "ideport=")) != nullptr) {
    myIdePort = atoi(value);
  } else if ((value = valueOf(option, "samplingperiod=")) != nullptr) {
    int period = atoi(value);
    if (period < 0) {
      return reportError("%s: sampling period is invalid\n\n");
    }
    // A period of 0 would make the sampler wait for good: the default stays, and the user hears why.
    char* end = nullptr;
    long parsed = strtol(value, &end, 10);
    if (end == value || *end != 0 || parsed <= 0 || parsed > 1000000) {
      fprintf(stderr, KJP_LOG_PREFIX "*** Warning ***: 'samplingperiod=%s' is not a number of milliseconds from 1 to 1000000; %d ms is used\n",
              value, DEFAULT_SAMPLING_PERIOD_MS);
      fflush(stderr);
      period = DEFAULT_SAMPLING_PERIOD_MS;
    }
    mySamplingPeriod = period;
  } else {
    return reportError("%s: unknown option '%s'\n\n", option);
  }
  return true;
}

bool Options::checkCombinations() {
  // Every conflict is told, so that one attempt shows the user all that must change.
  bool valid = true;
  if (myTracing && mySampling) {
    printOptionError("%s: 'tracing' cannot be used in combination with 'sampling'\n\n", nullptr);
    valid = false;
  }
  if (myDisableAlloc && myAllocAtStart) {
    printOptionError("%s: 'alloc*' options cannot be used in combination with 'disablealloc'\n\n", nullptr);
    valid = false;
  }
  if (myDisableCounts && myTracing) {
    printOptionError("%s: 'tracing' cannot be used in combination with 'disablecounts'\n\n", nullptr);
    valid = false;
  }
  if (myFilters != nullptr && !myTracing) {
    printOptionError("%s: 'filters' should be used in combination with 'tracing'\n\n", nullptr);
    valid = false;
  }
  if (myTracingTimes != TRACING_TIMES_AUTO && !myTracing) {
    printOptionError("%s: 'tracingtimes' should be used in combination with 'tracing'\n\n", nullptr);
    valid = false;
  }
  if (myTracingTimes == TRACING_TIMES_CLOCK && myAsyncSampling) {
    printOptionError("%s: 'tracingtimes=clock' cannot be used in combination with 'asyncsampling', which supplies sampled times\n\n", nullptr);
    valid = false;
  }
  if (myWallTimeSpec != nullptr && !myTracing && !mySampling && !myAsyncSampling) {
    printOptionError("%s: 'walltimespec' should be used in combination with 'tracing' or 'sampling'\n\n", nullptr);
    valid = false;
  }
  if (!valid) {
    printUsage();
  }
  return valid;
}

KString Options::getSessionName() {
  if (myProfiledSessionName != nullptr) {
    return KString(myProfiledSessionName);
  }

  jint candidate = -1;
  bool ideLauncherSeen = false;
  for (jint i = 1; i < myCommandLine.size(); i++) {
    const KString& argument = myCommandLine[i];
    if (argument == "-cp" || argument == "-classpath") {
      i++;
      continue;
    }
    if (!ideLauncherSeen && argument == IDE_LAUNCHER_CLASS) {
      ideLauncherSeen = true;
      continue;
    }
    if (argument.get()[0] == '-') {
      continue;
    }
    candidate = i;
    break;
  }
  if (candidate < 0) {
    return KString();
  }

  // A path may come from either kind of system; keep only its last part.
  const char* name = afterLast(myCommandLine[candidate].get(), '/');
  if (*name != 0) {
    name = afterLast(name, '\\');
  }
  if (myCommandLine[candidate - 1] == "-jar") {
    int length = KString::_length(name);
    if (length > 4 && strcmp(name + length - 4, ".jar") == 0) {
      return KString(name, length - 4);
    }
    return KString(name);
  }
  return KString(afterLast(name, '.'));
}

long Options::getXmxValue() {
  long result = DEFAULT_XMX;
  for (jint i = 1; i < myCommandLine.size(); i++) {
    const char* argument = myCommandLine[i].get();
    if (!KString::startsWith(argument, "-Xmx")) {
      continue;
    }
    const char* p = argument + 4;
    // Saturates instead of overflowing on absurd values; the JVM refuses those anyway.
    unsigned long number = 0;
    for (; *p >= '0' && *p <= '9'; p++) {
      number = number > static_cast<unsigned long>(LONG_MAX) / 10 ? static_cast<unsigned long>(LONG_MAX)
                                                                  : number * 10 + static_cast<unsigned long>(*p - '0');
    }
    // A value without a unit (bytes) is ignored, as is anything unreadable.
    int shift;
    switch (*p) {
      case 'k':
      case 'K':
        shift = 10;
        break;
      case 'm':
      case 'M':
        shift = 20;
        break;
      case 'g':
      case 'G':
        shift = 30;
        break;
      case 't':
      case 'T':
        shift = 40;
        break;
      default:
        continue;
    }
    result = number > (static_cast<unsigned long>(LONG_MAX) >> shift) ? LONG_MAX
                                                                       : static_cast<long>(number << shift);
  }
  return result;
}

bool Options::containsVMArgument(const char* prefix) {
  for (jint i = 1; i < myCommandLine.size(); i++) {
    if (myCommandLine[i].startsWith(prefix)) {
      return true;
    }
  }
  return false;
}

char* Options::getHeapDumpPath() {
  for (jint i = 1; i < myCommandLine.size(); i++) {
    const char* value = valueOf(myCommandLine[i].get(), "-XX:HeapDumpPath=");
    if (value != nullptr) {
      return k_strdup(value);
    }
  }
  // The JVM writes its dump into the working directory when no path is given.
  char* buffer = new char[4096];
  char* result = getcwd(buffer, 4096) == nullptr ? nullptr : k_strdup(buffer);
  delete[] buffer;
  return result;
}

bool Options::isHeapDumpOnOutOfMemoryErrorEnabled() {
  bool enabled = false;
  for (jint i = 1; i < myCommandLine.size(); i++) {
    if (myCommandLine[i].startsWith("-XX:+HeapDumpOnOutOfMemoryError")) {
      enabled = true;
    } else if (myCommandLine[i].startsWith("-XX:-HeapDumpOnOutOfMemoryError")) {
      enabled = false;
    }
  }
  return enabled;
}
