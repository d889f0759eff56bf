#include "agent/Options.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "agent/JVMTI_Agent.h"

namespace {

const std::string CANNOT_START = "Kestrix Java Profiler 8.0.1 cannot start";

const std::string USAGE =
    "Kestrix Java Profiler 8.0.1 JVMTI agent usage: -agentlib:kjpagent=[help]|[<option>, ...]\n"
    "\n"
    "Option             Description\n"
    "------------------ ----------------------------------------\n"
    "port=<value>       port to listen on (1-65535, by default any free port is chosen)\n"
    "listen=<ip>:<port> same as 'port', but bind agent socket to particular IP only\n"
    "onlylocal          allow only local connections to profiled application\n"
    "dir=<custom dir>   directory where snapshots are created (by default <user home>/Snapshots)\n"
    "telemetrylimit=<N> limit telemetry buffer capacity to N hours (approximately)\n"
    "sampling           startup with CPU sampling\n"
    "asyncsampling      startup with CPU sampling driven by each thread's CPU time, without\n"
    "                   safepoints; with 'tracing', tracing takes its times from these samples\n"
    "tracing            startup with CPU tracing\n"
    "                   (cannot be used together with 'disablecounts')\n"
    "noj2ee             do not perform J2EE high level profiling\n"
    "                   (use only in combination with 'sampling' or 'tracing')\n"
    "alloceach=<N>      startup with object allocation recording: record each N-th allocation;\n"
    "                   can be used together with 'allocsizelimit';\n"
    "                   cannot be used together with 'disablealloc'\n"
    "allocsizelimit=<B> startup with object allocation recording: record objects with size >= B bytes\n"
    "                   can be used together with 'alloceach';\n"
    "                   cannot be used together with 'disablealloc'\n"
    "monitors           startup with monitor usage profiling\n"
    "usedmem=<percent>  capture memory snapshot automatically when used heap memory\n"
    "                   reaches the threshold\n"
    "onexit=memory      always capture memory snapshot on exit\n"
    "disablealloc       do not instrument bytecode for object allocation recording\n"
    "disablecounts      do not instrument bytecode for CPU tracing\n"
    "disablej2ee        do not instrument bytecode for J2EE profiling\n"
    "disablestacktelemetry\n"
    "                   do not collect thread stack and status information\n"
    "quiet              suppress diagnostic messages\n"
    "help               print this usage and stop the JVM\n"
    "tmpdir=<dir>       directory for the agent's temporary jar (by default /tmp)\n"
    "samplingperiod=<ms>\n"
    "                   time between two CPU samples (by default 20)\n"
    "tracingtimes=sampled|clock\n"
    "                   tracing takes its times from samples, or from the thread CPU clock at\n"
    "                   every call (by default the clock, unless reading it is slow)\n"
    "asynctimer=perf|posix\n"
    "                   the timers of 'asyncsampling': the kernel's perf task clock (the default\n"
    "                   where the kernel allows it) or POSIX CPU timers, which fire at clock ticks\n"
    "alloc              startup with object allocation recording of every allocation\n"
    "allocadaptive      startup with object allocation recording of every 10th allocation\n"
    "                   and of every object of at least 1 MB\n"
    "onexit=snapshot    always capture a snapshot (without heap) on exit\n"
    "filters=<file>     the methods that tracing folds into their callers (see the README)\n"
    "walltimespec=<file>\n"
    "                   the methods that are timed by the wall clock (see the README)\n"
    "disableexceptions  do not count exceptions: a JVM that may report them deoptimizes\n"
    "                   the code of every throw, which costs throw-heavy programs dearly\n"
    "sessionname=<name> name of the session in snapshot names and in the profiler\n"
    "delay=<ms>         start the agent's runtime that much later\n"
    "withdebugger       leave out what conflicts with a debugger in the same JVM\n"
    "profileruipath=<path>, ideport=<port>\n"
    "                   a profiler UI to launch at start-up and the IDE port it talks to\n"
    "\n"
    "Please find detailed description in the Help section \"Startup options\":\n"
    "https://github.com/kestrix/kjpagent#startup-options\n"
    "\n"
    "Examples:\n"
    "java -agentlib:kjpagent FooClass\n"
    "java -agentlib:kjpagent=alloceach=10,allocsizelimit=1000000,dir=c:\\MySnapshots FooClass\n"
    "java -agentlib:kjpagent=usedmem=70 FooClass\n";

// What an option error looks like on stdout: the message, a blank line, the usage.
std::string errorOutput(const std::string& message) { return CANNOT_START + ": " + message + "\n\n" + USAGE; }

std::unique_ptr<Options> optionsOver(const std::vector<std::string>& arguments) {
  std::vector<const char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(argument.c_str());
  }
  return std::unique_ptr<Options>(new Options(pointers.data(), static_cast<jint>(pointers.size())));
}

struct ParseResult {
  bool accepted;
  std::string out;
  std::string err;
};

ParseResult parseCaptured(Options& options, const std::string& text) {
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back(0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  bool accepted = options.parse(buffer.data());
  ParseResult result;
  result.accepted = accepted;
  result.out = testing::internal::GetCapturedStdout();
  result.err = testing::internal::GetCapturedStderr();
  return result;
}

// A file in the format of /proc/<pid>/cmdline, removed with the object.
class CmdlineFile {
 public:
  explicit CmdlineFile(const std::string& content) {
    char pattern[] = "/tmp/kjp-options-test-XXXXXX";
    int fd = mkstemp(pattern);
    EXPECT_GE(fd, 0);
    if (!content.empty()) {
      EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    }
    close(fd);
    myPath = pattern;
  }
  ~CmdlineFile() { unlink(myPath.c_str()); }
  const char* path() const { return myPath.c_str(); }

 private:
  std::string myPath;
};

// A literal that holds NULs, without the terminator the compiler adds.
template <size_t N>
std::string bytes(const char (&text)[N]) {
  return std::string(text, N - 1);
}

std::vector<std::string> readArguments(const char* path) {
  KVectorSafe<KString> result(4);
  getCommandLineParameters(&result, path);
  std::vector<std::string> arguments;
  for (jint i = 0; i < result.size(); i++) {
    arguments.push_back(result[i].get());
  }
  return arguments;
}

// The globals that parsing reads and writes are put back after each test, so that the
// other suites of this binary see them as the agent leaves them at load.
class OptionsTest : public testing::Test {
 protected:
  void SetUp() override {
    mySavedJVMTI = ourJVMTI;
    mySavedStatus = ourStatus;
    // The JVMTI-only options are refused without an environment; most tests act as a
    // normal load, where it is set by the time options are parsed. It is never called.
    ourJVMTI = reinterpret_cast<jvmtiEnv*>(&myFakeEnvironment);
    ourStatus = STACK_TELEMETRY;
    myOptions = optionsOver({"java", "Main"});
  }
  void TearDown() override {
    ourJVMTI = mySavedJVMTI;
    ourStatus = mySavedStatus;
  }

  ParseResult parse(const std::string& text) { return parseCaptured(*myOptions, text); }

  // Parses with a fresh Options, for tables of independent cases.
  ParseResult parseFresh(const std::string& text) {
    myOptions = optionsOver({"java", "Main"});
    return parse(text);
  }

  std::unique_ptr<Options> myOptions;

 private:
  jvmtiEnv* mySavedJVMTI;
  jlong mySavedStatus;
  long myFakeEnvironment = 0;
};

TEST_F(OptionsTest, HelpPrintsExactUsageAndStops) {
  ParseResult result = parse("help");
  EXPECT_FALSE(result.accepted);
  EXPECT_EQ(USAGE, result.out);
  EXPECT_EQ("", result.err);

  // "help" is only special as the whole string.
  EXPECT_EQ(errorOutput("unknown option 'help'"), parseFresh("quiet,help").out);
}

TEST_F(OptionsTest, NothingAskedKeepsDefaults) {
  EXPECT_TRUE(myOptions->parse(nullptr));
  ParseResult result = parse("");
  EXPECT_TRUE(result.accepted);
  EXPECT_EQ("", result.out);

  const Options& o = *myOptions;
  EXPECT_EQ(nullptr, o.myProfiledSessionName);
  EXPECT_FALSE(o.mySampling || o.myTracing || o.myNoJ2EE || o.myDisableAlloc || o.myDisableCounts ||
               o.myDisableJ2EE || o.myAllocAtStart || o.myRecordEachEnabled || o.mySizeLimitEnabled ||
               o.myMonitors || o.myWithDebugger || o.myQuiet || o.myOnExitMemory || o.myOnExitSnapshot ||
               o.myOnlyLocal || o.myOldIBM || o.myProcessMemoryTelemetry || o.myDebugJNI || o.myDebugPageFile);
  EXPECT_EQ(10, o.myRecordEach);
  EXPECT_EQ(1048576, o.mySizeLimit);
  EXPECT_EQ(3600, o.myTelemetryLimit);
  EXPECT_EQ(20, o.mySamplingPeriod);
  EXPECT_EQ(0, o.myDelay);
  EXPECT_EQ(0, o.myUsedMem);
  EXPECT_EQ(-1, o.myPort);
  EXPECT_EQ(-1, o.myIdePort);
  EXPECT_TRUE(o.myHost == nullptr && o.myDir == nullptr && o.myTmpDir == nullptr && o.myProfilerUIPath == nullptr &&
              o.myFilters == nullptr && o.myWallTimeSpec == nullptr);
  EXPECT_EQ(STACK_TELEMETRY, ourStatus);
}

TEST_F(OptionsTest, FlagOptionsSetTheirFields) {
  ParseResult result = parse(
      "sampling,monitors,noj2ee,quiet,printInstrTimes,printStringGCTimes,printFilters,printPercents,"
      "debugPageFile,debugjni,oldibm,processmemorytelemetry,withdebugger,onlylocal,onexit=snapshot,"
      "specialstartup,ideport=7,dir=/snap,tmpdir=/t,profileruipath=/ui,sessionname=KJPQUOTED41");
  ASSERT_TRUE(result.accepted) << result.out;
  EXPECT_EQ("", result.out);
  const Options& o = *myOptions;
  EXPECT_TRUE(o.mySampling && o.myMonitors && o.myNoJ2EE && o.myQuiet && o.myPrintInstrTimes &&
              o.myPrintStringGCTimes && o.myPrintFilters && o.myPrintPercents && o.myDebugPageFile &&
              o.myDebugJNI && o.myOldIBM && o.myProcessMemoryTelemetry && o.myWithDebugger && o.myOnlyLocal &&
              o.myOnExitSnapshot);
  EXPECT_FALSE(o.myOnExitMemory);
  EXPECT_EQ(1, o.myDelay);
  EXPECT_EQ(7, o.myIdePort);
  EXPECT_STREQ("/snap", o.myDir);
  EXPECT_STREQ("/t", o.myTmpDir);
  EXPECT_STREQ("/ui", o.myProfilerUIPath);
  // The session name stays quoted; the Java side unquotes it.
  EXPECT_STREQ("KJPQUOTED41", o.myProfiledSessionName);
  EXPECT_STREQ("KJPQUOTED41", myOptions->getSessionName().get());
}

TEST_F(OptionsTest, NumericValuesAreRangeChecked) {
  struct Case {
    const char* option;
    const char* message;  // null when the value is accepted
  };
  const Case cases[] = {
      {"port=0", "port is invalid"},
      {"port=65536", "port is invalid"},
      {"port=abc", "port is invalid"},
      {"port=-1", "port is invalid"},
      {"port=1", nullptr},
      {"port=65535", nullptr},
      {"usedmem=49", "usedmem parameter is invalid; should be an integer in the range 50..90"},
      {"usedmem=91", "usedmem parameter is invalid; should be an integer in the range 50..90"},
      {"usedmem=", "usedmem parameter is invalid; should be an integer in the range 50..90"},
      {"usedmem=50", nullptr},
      {"usedmem=90", nullptr},
      {"telemetrylimit=0", "'telemetrylimit' value is invalid: number of hours should not be less than 1"},
      {"telemetrylimit=-3", "'telemetrylimit' value is invalid: number of hours should not be less than 1"},
      {"telemetrylimit=1", nullptr},
      {"delay=-1", "'delay' is invalid"},
      {"delay=0", nullptr},
      {"samplingperiod=-1", "sampling period is invalid"},
      {"alloceach=0", "'alloceach' value is invalid"},
      {"alloceach=x", "'alloceach' value is invalid"},
      {"alloceach=1", nullptr},
      {"allocsizelimit=-5", nullptr},
      {"tracingtimes=wall", "'tracingtimes=' takes 'sampled' or 'clock'"},
      {"asynctimer=perf", nullptr},
      {"asynctimer=posix", nullptr},
      {"asynctimer=itimer", "'asynctimer=' takes 'perf' or 'posix'"},
  };
  for (const Case& c : cases) {
    ParseResult result = parseFresh(c.option);
    if (c.message == nullptr) {
      EXPECT_TRUE(result.accepted) << c.option;
      EXPECT_EQ("", result.out) << c.option;
    } else {
      EXPECT_FALSE(result.accepted) << c.option;
      EXPECT_EQ(errorOutput(c.message), result.out) << c.option;
    }
    EXPECT_EQ("", result.err) << c.option;
  }

  // A sampling period the sampler can't use is taken, with a warning, as the default: 0 would
  // make it wait for good.
  for (const char* period : {"samplingperiod=0", "samplingperiod=abc", "samplingperiod=5ms", "samplingperiod="}) {
    ParseResult result = parseFresh(period);
    EXPECT_TRUE(result.accepted) << period;
    EXPECT_EQ(20, myOptions->mySamplingPeriod) << period;
    EXPECT_EQ(std::string("[Kestrix Java Profiler 8.0.1] *** Warning ***: '") + period +
                  "' is not a number of milliseconds from 1 to 1000000; 20 ms is used\n",
              result.err);
  }

  // Values are read like atoi: digits up to the first other character.
  ASSERT_TRUE(parseFresh("port=12x,usedmem=70%,delay=250ms,samplingperiod=5,telemetrylimit=2h").accepted);
  EXPECT_EQ(12, myOptions->myPort);
  EXPECT_EQ(70, myOptions->myUsedMem);
  EXPECT_EQ(250, myOptions->myDelay);
  EXPECT_EQ(5, myOptions->mySamplingPeriod);
  EXPECT_EQ(7200, myOptions->myTelemetryLimit);

  // Hours beyond what an int of seconds holds don't wrap into a tiny or negative limit.
  ASSERT_TRUE(parseFresh("telemetrylimit=1000000").accepted);
  EXPECT_EQ(INT_MAX, myOptions->myTelemetryLimit);

  // The first error stops the parse; later options are not looked at.
  ParseResult result = parseFresh("port=0,bogus");
  EXPECT_EQ(errorOutput("port is invalid"), result.out);
}

TEST_F(OptionsTest, ListenSplitsAtLastColon) {
  ASSERT_TRUE(parseFresh("listen=127.0.0.1:8849").accepted);
  EXPECT_STREQ("127.0.0.1", myOptions->myHost);
  EXPECT_EQ(8849, myOptions->myPort);

  ASSERT_TRUE(parseFresh("listen=[::1]:10001").accepted);
  EXPECT_STREQ("[::1]", myOptions->myHost);
  EXPECT_EQ(10001, myOptions->myPort);

  ASSERT_TRUE(parseFresh("listen=:9000").accepted);
  EXPECT_STREQ("", myOptions->myHost);
  EXPECT_EQ(9000, myOptions->myPort);

  ASSERT_TRUE(parseFresh("listen=9001").accepted);
  EXPECT_EQ(nullptr, myOptions->myHost);
  EXPECT_EQ(9001, myOptions->myPort);

  // A later listen replaces the host of an earlier one.
  ASSERT_TRUE(parseFresh("listen=a:1,listen=b:2").accepted);
  EXPECT_STREQ("b", myOptions->myHost);
  EXPECT_EQ(2, myOptions->myPort);

  EXPECT_EQ(errorOutput("port is invalid"), parseFresh("listen=host:0").out);
  EXPECT_EQ(errorOutput("port is invalid"), parseFresh("listen=host:").out);
}

TEST_F(OptionsTest, AllocationOptionsCombineByHalves) {
  ASSERT_TRUE(parseFresh("allocsizelimit=1000").accepted);
  EXPECT_TRUE(myOptions->myAllocAtStart);
  EXPECT_FALSE(myOptions->myRecordEachEnabled);
  EXPECT_TRUE(myOptions->mySizeLimitEnabled);
  EXPECT_EQ(1000, myOptions->mySizeLimit);

  // Either order: each sets its own half.
  for (const char* text : {"alloceach=5,allocsizelimit=100", "allocsizelimit=100,alloceach=5"}) {
    ASSERT_TRUE(parseFresh(text).accepted) << text;
    EXPECT_TRUE(myOptions->myAllocAtStart && myOptions->myRecordEachEnabled && myOptions->mySizeLimitEnabled)
        << text;
    EXPECT_EQ(5, myOptions->myRecordEach) << text;
    EXPECT_EQ(100, myOptions->mySizeLimit) << text;
  }

  // alloc and allocadaptive set both halves, whatever came before.
  ASSERT_TRUE(parseFresh("alloceach=5,allocsizelimit=100,alloc").accepted);
  EXPECT_TRUE(myOptions->myRecordEachEnabled);
  EXPECT_EQ(1, myOptions->myRecordEach);
  EXPECT_FALSE(myOptions->mySizeLimitEnabled);
  EXPECT_EQ(1048576, myOptions->mySizeLimit);

  ASSERT_TRUE(parseFresh("alloc,allocadaptive").accepted);
  EXPECT_TRUE(myOptions->myAllocAtStart && myOptions->myRecordEachEnabled && myOptions->mySizeLimitEnabled);
  EXPECT_EQ(10, myOptions->myRecordEach);
  EXPECT_EQ(1048576, myOptions->mySizeLimit);
}

TEST_F(OptionsTest, CombinationRulesReportEveryConflictThenUsageOnce) {
  const std::string tracingSampling = CANNOT_START + ": 'tracing' cannot be used in combination with 'sampling'\n\n";
  const std::string allocDisabled =
      CANNOT_START + ": 'alloc*' options cannot be used in combination with 'disablealloc'\n\n";
  const std::string tracingNoCounts =
      CANNOT_START + ": 'tracing' cannot be used in combination with 'disablecounts'\n\n";
  const std::string filtersNoTracing = CANNOT_START + ": 'filters' should be used in combination with 'tracing'\n\n";
  const std::string wallTimeAlone =
      CANNOT_START + ": 'walltimespec' should be used in combination with 'tracing' or 'sampling'\n\n";

  ParseResult result = parseFresh("tracing,disablecounts,sampling");
  EXPECT_FALSE(result.accepted);
  EXPECT_EQ(tracingSampling + tracingNoCounts + USAGE, result.out);

  result = parseFresh("tracing,sampling,alloc,disablealloc,disablecounts,filters=/f");
  EXPECT_FALSE(result.accepted);
  EXPECT_EQ(tracingSampling + allocDisabled + tracingNoCounts + USAGE, result.out);

  result = parseFresh("allocsizelimit=1,disablealloc,filters=/f,walltimespec=/w");
  EXPECT_EQ(allocDisabled + filtersNoTracing + wallTimeAlone + USAGE, result.out);

  // filters need tracing even when sampling is on; walltimespec is content with sampling.
  EXPECT_EQ(filtersNoTracing + USAGE, parseFresh("sampling,filters=/f").out);
  EXPECT_TRUE(parseFresh("sampling,walltimespec=/w").accepted);
  EXPECT_TRUE(parseFresh("tracing,filters=/f,walltimespec=/w").accepted);
  // noj2ee alone is allowed, whatever the usage text suggests.
  EXPECT_TRUE(parseFresh("noj2ee").accepted);
}

TEST_F(OptionsTest, JVMTIOnlyOptionsNeedAnEnvironment) {
  ASSERT_TRUE(parseFresh("disablej2ee").accepted);
  EXPECT_TRUE(myOptions->myDisableJ2EE);
  EXPECT_TRUE(myOptions->myNoJ2EE);

  ASSERT_TRUE(parseFresh("tracing,disablealloc,monitors").accepted);
  EXPECT_TRUE(myOptions->myTracing && myOptions->myDisableAlloc && myOptions->myMonitors);

  ourJVMTI = nullptr;
  for (const char* name : {"tracing", "noj2ee", "disablealloc", "disablecounts", "disablej2ee", "monitors"}) {
    ParseResult result = parseFresh(std::string("quiet,") + name);
    EXPECT_FALSE(result.accepted) << name;
    EXPECT_EQ(errorOutput(std::string("'") + name + "' is supported in JVMTI only"), result.out) << name;
  }
  // The message names the option after its old spelling was mapped.
  ParseResult result = parseFresh("cpu=full");
  EXPECT_EQ(errorOutput("'tracing' is supported in JVMTI only"), result.out);
  EXPECT_TRUE(parseFresh("sampling,alloc").accepted);
}

TEST_F(OptionsTest, DeprecationWarningsFollowOptionOrder) {
  const std::string warning =
      "[Kestrix Java Profiler 8.0.1] *** WARNING! *** 'cpu=full' option is deprecated; use 'tracing' instead.\n";

  ParseResult result = parseFresh("cpu=full,quiet");
  EXPECT_TRUE(result.accepted);
  EXPECT_TRUE(myOptions->myTracing);
  EXPECT_EQ(warning, result.err);
  EXPECT_EQ("", result.out);

  result = parseFresh("quiet,cpu=full");
  EXPECT_TRUE(myOptions->myTracing);
  EXPECT_EQ("", result.err);

  result = parseFresh("cpu=times");
  EXPECT_TRUE(myOptions->mySampling);
  EXPECT_EQ("[Kestrix Java Profiler 8.0.1] *** WARNING! *** 'cpu=times' option is deprecated; use 'sampling' instead.\n",
            result.err);

  result = parseFresh("cpu=nolib");
  EXPECT_TRUE(myOptions->myTracing);
  EXPECT_EQ("[Kestrix Java Profiler 8.0.1] *** WARNING! *** 'cpu=nolib' option is deprecated; use 'tracing' instead.\n",
            result.err);

  // Other values of cpu= are no old spellings.
  EXPECT_EQ(errorOutput("unknown option 'cpu=fast'"), parseFresh("cpu=fast").out);
}

TEST_F(OptionsTest, ObsoleteOnExitValuesWarnEvenWhenQuiet) {
  ParseResult result = parseFresh("quiet,onexit=cpu");
  EXPECT_TRUE(result.accepted);
  EXPECT_EQ("[Kestrix Java Profiler 8.0.1] *** Warning ***: 'onexit=cpu' option is obsolete and will be ignored\n",
            result.err);
  EXPECT_FALSE(myOptions->myOnExitMemory || myOptions->myOnExitSnapshot);

  result = parseFresh("quiet,onexit=both");
  EXPECT_TRUE(result.accepted);
  EXPECT_EQ(
      "[Kestrix Java Profiler 8.0.1] *** Warning ***: 'onexit=both' option is deprecated; 'onexit=memory' will be "
      "used instead\n",
      result.err);
  EXPECT_TRUE(myOptions->myOnExitMemory);
  EXPECT_FALSE(myOptions->myOnExitSnapshot);

  ASSERT_TRUE(parseFresh("onexit=memory").accepted);
  EXPECT_TRUE(myOptions->myOnExitMemory);
  EXPECT_EQ(errorOutput("unknown option 'onexit=memoryx'"), parseFresh("onexit=memoryx").out);
}

TEST_F(OptionsTest, EmptyAndUnknownTokens) {
  EXPECT_EQ(errorOutput("unknown option 'bogus'"), parseFresh("quiet,bogus,sampling").out);
  // Matching is exact and case sensitive; a blank is part of the token.
  EXPECT_EQ(errorOutput("unknown option 'Sampling'"), parseFresh("Sampling").out);
  EXPECT_EQ(errorOutput("unknown option ' sampling'"), parseFresh("quiet, sampling").out);
  EXPECT_EQ(errorOutput("unknown option 'samplingx'"), parseFresh("samplingx").out);
  // Empty tokens from doubled or leading commas are unknown options with an empty name.
  EXPECT_EQ(errorOutput("unknown option ''"), parseFresh("quiet,,sampling").out);
  EXPECT_EQ(errorOutput("unknown option ''"), parseFresh(",sampling").out);
  EXPECT_EQ(errorOutput("unknown option ''"), parseFresh(",").out);
  // One trailing comma just ends the string.
  ParseResult result = parseFresh("sampling,");
  EXPECT_TRUE(result.accepted);
  EXPECT_TRUE(myOptions->mySampling);
}

TEST_F(OptionsTest, TokenLengthLimit) {
  // 4095 characters fit the token buffer: this one reaches the value check.
  std::string longest = "dir=" + std::string(4091, 'd');
  ASSERT_TRUE(parseFresh("quiet," + longest + ",sampling").accepted);
  EXPECT_EQ(std::string(4091, 'd'), myOptions->myDir);
  EXPECT_TRUE(myOptions->mySampling);

  std::string unknown(4095, 'x');
  EXPECT_EQ(errorOutput("unknown option '" + unknown + "'"), parseFresh(unknown).out);

  // 4096 characters and more don't, wherever the token stands.
  EXPECT_EQ(errorOutput("invalid options"), parseFresh(longest + "d").out);
  EXPECT_EQ(errorOutput("invalid options"), parseFresh("quiet," + std::string(100000, 'y') + ",sampling").out);
  EXPECT_FALSE(myOptions->mySampling);
}

TEST_F(OptionsTest, DisableStackTelemetryClearsStatusBitAtOnce) {
  ourStatus = STACK_TELEMETRY | CPU_TIMES_BIT;
  ParseResult result = parse("disablestacktelemetry,bogus");
  // Cleared as the token is read, even though a later token fails the parse.
  EXPECT_FALSE(result.accepted);
  EXPECT_EQ(CPU_TIMES_BIT, ourStatus);
}

TEST_F(OptionsTest, PathValuesAreKeptOrUnquoted) {
  // dir and tmpdir stay as given; filters and walltimespec are opened natively and are
  // unquoted at once. A value may hold an '=' of its own.
  ASSERT_TRUE(parseFresh("tracing,dir=KJPQUOTED2C,tmpdir=/a=b,filters=KJPQUOTED2F612C62,walltimespec=/plain").accepted);
  EXPECT_STREQ("KJPQUOTED2C", myOptions->myDir);
  EXPECT_STREQ("/a=b", myOptions->myTmpDir);
  EXPECT_STREQ("/a,b", myOptions->myFilters);
  EXPECT_STREQ("/plain", myOptions->myWallTimeSpec);

  // Given twice, the later value wins.
  ASSERT_TRUE(parseFresh("tracing,dir=/one,dir=/two,filters=/f1,filters=/f2,sessionname=a,sessionname=b").accepted);
  EXPECT_STREQ("/two", myOptions->myDir);
  EXPECT_STREQ("/f2", myOptions->myFilters);
  EXPECT_STREQ("b", myOptions->myProfiledSessionName);
}

TEST_F(OptionsTest, SessionNameFromCommandLine) {
  struct Case {
    std::vector<std::string> commandLine;
    const char* expected;
  };
  const Case cases[] = {
      {{"java", "-cp", "lib/a.jar:b", "com.example.Main", "arg"}, "Main"},
      {{"java", "-classpath", "x", "-Xmx1g", "Main"}, "Main"},
      {{"java", "-jar", "/opt/app/server.jar", "x.y"}, "server"},
      {{"java", "-Dfoo=1", "-jar", "C:\\apps\\tool.jar"}, "tool"},
      {{"java", "-jar", "server.JAR"}, "server.JAR"},
      {{"java", "-jar", ".jar"}, ".jar"},
      {{"java", "-jar", "app/x.jar.jar"}, "x.jar"},
      {{"java", "-jar", "dir/"}, ""},
      {{"java", "-agentlib:kjpagent", "com.intellij.rt.execution.application.AppMain", "org.demo.App"}, "App"},
      // After the marker, the same text is an ordinary class name.
      {{"java", "com.intellij.rt.execution.application.AppMain", "com.intellij.rt.execution.application.AppMain"},
       "AppMain"},
      // Only -cp and -classpath take their value along; other options' values are not known.
      {{"java", "-verbose:gc", "--add-opens", "java.base/java.lang=ALL-UNNAMED", "Main"}, "lang=ALL-UNNAMED"},
      {{"java", "a/b\\c.d.Main"}, "Main"},
      {{"java"}, ""},
      {{"java", "-cp", "x", "-version"}, ""},
      {{"java", "-cp"}, ""},
      {{}, ""},
  };
  for (const Case& c : cases) {
    std::unique_ptr<Options> options = optionsOver(c.commandLine);
    EXPECT_STREQ(c.expected, options->getSessionName().get()) << testing::PrintToString(c.commandLine);
  }
}

TEST_F(OptionsTest, XmxValue) {
  struct Case {
    std::vector<std::string> commandLine;
    long expected;
  };
  const Case cases[] = {
      {{"java", "Main"}, 67108864L},
      {{"java", "-Xmx2g", "Main"}, 2147483648L},
      {{"java", "-Xmx512M"}, 512L << 20},
      {{"java", "-Xmx64k"}, 64L << 10},
      {{"java", "-Xmx3T"}, 3L << 40},
      // Bytes without a unit and unknown units leave what was there.
      {{"java", "-Xmx1048576"}, 67108864L},
      {{"java", "-Xmx1g", "-Xmx100"}, 1L << 30},
      {{"java", "-Xmx100x"}, 67108864L},
      // A unit with no digits before it gives 0.
      {{"java", "-XmxG"}, 0L},
      // The last one that sets a value wins.
      {{"java", "-Xmx1g", "-Xmx256m"}, 256L << 20},
      // The launcher is never an argument.
      {{"-Xmx1g", "Main"}, 67108864L},
      {{"java", "-Xmx99999999999999999999999g"}, LONG_MAX},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, optionsOver(c.commandLine)->getXmxValue()) << testing::PrintToString(c.commandLine);
  }
}

TEST_F(OptionsTest, HeapDumpSettings) {
  std::unique_ptr<Options> options =
      optionsOver({"java", "-XX:HeapDumpPath=/var/dumps", "-XX:HeapDumpPath=/other", "-XX:+HeapDumpOnOutOfMemoryError"});
  std::unique_ptr<char[]> path(options->getHeapDumpPath());
  EXPECT_STREQ("/var/dumps", path.get());
  EXPECT_TRUE(options->isHeapDumpOnOutOfMemoryErrorEnabled());

  options = optionsOver({"java", "-XX:+HeapDumpOnOutOfMemoryError", "-XX:-HeapDumpOnOutOfMemoryError"});
  EXPECT_FALSE(options->isHeapDumpOnOutOfMemoryErrorEnabled());
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  path.reset(options->getHeapDumpPath());
  EXPECT_STREQ(cwd, path.get());

  // The launcher is never an argument.
  EXPECT_FALSE(optionsOver({"-XX:+HeapDumpOnOutOfMemoryError", "Main"})->isHeapDumpOnOutOfMemoryErrorEnabled());
  path.reset(optionsOver({"-XX:HeapDumpPath=/launcher", "Main"})->getHeapDumpPath());
  EXPECT_STREQ(cwd, path.get());
}

TEST_F(OptionsTest, DebuggerDetectedFromJVMArguments) {
  EXPECT_TRUE(optionsOver({"java", "-agentlib:jdwp=transport=dt_socket,server=y", "Main"})->myWithDebugger);
  EXPECT_TRUE(optionsOver({"java", "-Xdebug", "Main"})->myWithDebugger);
  EXPECT_TRUE(optionsOver({"java", "-Xrunjdwp:transport=dt_socket", "Main"})->myWithDebugger);
  EXPECT_FALSE(optionsOver({"-Xdebug", "Main"})->myWithDebugger);
  EXPECT_FALSE(optionsOver({"java", "-agentlib:kjpagent", "Main"})->myWithDebugger);
  EXPECT_TRUE(optionsOver({"java", "Main", "-Xmx1g"})->containsVMArgument("-Xmx"));
  EXPECT_FALSE(optionsOver({"java", "Main"})->containsVMArgument("-Xmx"));
}

TEST(OptionsCommandLineTest, ReadsThisProcessAtLoad) {
  // ourOptions was built by a static initialiser from /proc; its first argument is the
  // path this test binary was started with.
  ASSERT_GT(ourOptions.myCommandLine.size(), 0);
  EXPECT_NE(nullptr, strstr(ourOptions.myCommandLine[0].get(), "kjp_unit_tests"));

  KVectorSafe<KString> arguments(8);
  getCommandLineParameters(&arguments);
  ASSERT_EQ(ourOptions.myCommandLine.size(), arguments.size());
  for (jint i = 0; i < arguments.size(); i++) {
    EXPECT_STREQ(ourOptions.myCommandLine[i].get(), arguments[i].get());
  }
}

TEST(OptionsCommandLineTest, CmdlineFileFormats) {
  using Args = std::vector<std::string>;
  EXPECT_EQ((Args{"java", "-cp", "x", "Main"}), readArguments(CmdlineFile(bytes("java\0-cp\0x\0Main\0")).path()));
  // Empty arguments are arguments; a missing final NUL keeps the last one.
  EXPECT_EQ((Args{"java", "", "Main"}), readArguments(CmdlineFile(bytes("java\0\0Main")).path()));
  EXPECT_EQ((Args{}), readArguments(CmdlineFile("").path()));
  // A process that rewrote its title may leave no NUL at all.
  EXPECT_EQ((Args{"java Main arg"}), readArguments(CmdlineFile("java Main arg").path()));

  // Unreadable sources give an empty command line rather than ending the process.
  EXPECT_EQ((Args{}), readArguments("/nonexistent/kjp/cmdline"));
  EXPECT_EQ((Args{}), readArguments("/tmp"));

  std::unique_ptr<Options> options(new Options("/nonexistent/kjp/cmdline"));
  EXPECT_EQ(0, options->myCommandLine.size());
  EXPECT_STREQ("", options->getSessionName().get());
  EXPECT_EQ(67108864L, options->getXmxValue());
  EXPECT_FALSE(options->myWithDebugger);
  EXPECT_FALSE(options->isHeapDumpOnOutOfMemoryErrorEnabled());

  options.reset(new Options(CmdlineFile(bytes("java\0-Xdebug\0-jar\0/x/app.jar\0")).path()));
  EXPECT_TRUE(options->myWithDebugger);
  EXPECT_STREQ("app", options->getSessionName().get());
}

TEST(OptionsCommandLineTest, LongCommandLineIsCut) {
  // Exactly the most that is read: nothing is lost.
  std::string fits = bytes("java\0") + std::string(131071 - 6, 'a') + std::string(1, '\0');
  ASSERT_EQ(131071u, fits.size());
  std::vector<std::string> arguments = readArguments(CmdlineFile(fits).path());
  ASSERT_EQ(2u, arguments.size());
  EXPECT_EQ(131071u - 6, arguments[1].size());

  // Longer: the argument at the end of the buffer is cut, and what follows is gone.
  std::string longer =
      bytes("java\0-Xmx2g\0") + std::string(200000, 'b') + bytes("\0-Xmx4g\0Main\0");
  arguments = readArguments(CmdlineFile(longer).path());
  ASSERT_EQ(3u, arguments.size());
  EXPECT_EQ(131071u - 12, arguments[2].size());

  std::unique_ptr<Options> options(new Options(CmdlineFile(longer).path()));
  EXPECT_EQ(2147483648L, options->getXmxValue());
}

TEST(OptionsDeathTest, Preconditions) {
  KVectorSafe<KString> notEmpty(2);
  notEmpty.push(KString("x"));
  EXPECT_DEATH(getCommandLineParameters(&notEmpty, "/nonexistent"), "result->size\\(\\) == 0");

  std::unique_ptr<Options> options(new Options("/nonexistent"));
  EXPECT_DEATH(options->handleDeprecatedOption(nullptr), "option != nullptr");
}

}  // namespace
