#include "engines/Filter.h"

#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "agent/FileUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KHelpers.h"
#include "agent/KVectorSafe.h"
#include "agent/Options.h"
#include "agent/TextUtil.h"

// Never destroyed: sampler and probes may still read the filters while the process exits.
KVector<Filter*>& Filter::ourFilters = *new KVector<Filter*>(16);
bool ourInverseFilters = false;

const char* const DEFAULT_FILTER_SPEC = "com.sun.*\njava.*\njavax.*\njdk.*\nsun.*\njrockit.*";
const char* const DEFAULT_WALL_TIME_SPEC =
    "java.io.RandomAccessFile    readBytes    ([BII)I\n"
    "java.io.RandomAccessFile    read         ()I\n"
    "java.io.RandomAccessFile    write        (I)V\n"
    "java.io.RandomAccessFile    writeBytes   ([BII)V\n"
    "java.net.SocketInputStream  socketRead0  (Ljava/io/FileDescriptor;[BIII)I\n"
    "java.net.SocketOutputStream socketWrite0 (Ljava/io/FileDescriptor;[BII)V\n";

namespace {

// Where threads sit idle, on old and on current JVMs. A sample with one of these on top
// charges nothing, however long the thread has been there.
const char* const WAIT_LIST[][2] = {
    {"java.lang.Object", "wait"},
    {"java.lang.Thread", "sleep"},
    {"java.lang.Thread", "yield"},
    {"java.net.PlainSocketImpl", "socketAccept"},
    {"java.net.PlainSocketImpl", "accept"},
    {"sun.nio.ch.ServerSocketChannelImpl", "accept0"},
    {"sun.misc.Unsafe", "park"},
    {"sun.nio.ch.EPollArrayWrapper", "epollWait"},
    {"java.lang.Object", "wait0"},
    {"java.lang.Thread", "sleepNanos0"},
    {"java.lang.Thread", "yield0"},
    {"jdk.internal.misc.Unsafe", "park"},
    {"sun.nio.ch.EPoll", "wait"},
    {"sun.nio.ch.Net", "accept"},
    {"sun.nio.ch.Net", "poll"},
};

const char* stringAt(jint index) {
  if (index == 0) {
    return "";
  }
  StringRecord* record = ourDB->myStringTable->getRecord(index, false);
  return record == nullptr || record->myText == nullptr ? "" : record->myText;
}

// A method filter names a prefix: "java.*" covers "java.lang.String" and also "javax".
KString withStar(const KString& pattern, jint type) {
  return type == Filter::TYPE_METHOD_FILTER ? pattern + "*" : pattern;
}

void parseLine(const KString& line, jint type) {
  KVectorSafe<KString> pieces(4);
  line.split(" \t", pieces);
  if (pieces.size() == 1) {
    KString klass = withStar(pieces[0], type);
    Filter::ourFilters.push(new Filter(klass.get(), nullptr, nullptr, type));
    if (ourOptions.myPrintFilters) {
      fprintf(stderr, "filter: type=%d %s\n", type, klass.get());
      fflush(stderr);
    }
  } else if (pieces.size() == 3) {
    KString klass = withStar(pieces[0], type);
    KString method = withStar(pieces[1], type);
    KString signature = withStar(pieces[2], type);
    Filter::ourFilters.push(new Filter(klass.get(), method.get(), signature.get(), type));
    if (ourOptions.myPrintFilters) {
      fprintf(stderr, "filter: type=%d %s %s %s\n", type, klass.get(), method.get(), signature.get());
      fflush(stderr);
    }
  } else if (!ourOptions.myQuiet) {
    fprintf(stderr, KJP_LOG_PREFIX "*** WARNING! *** Invalid filter line: %s\n", line.get());
    fflush(stderr);
  }
}

// Reads a file named by an option and frees the option's text: the option is consumed once.
// The file an option names; a file that can't be read is said so, and the defaults serve.
bool readOptionFile(const char* optionName, char** optionPath, KString* text) {
  if (*optionPath == nullptr) {
    return false;
  }
  FILE* file = fopen(*optionPath, "r");
  if (file == nullptr) {
    const char* reason = getEnglishErrorMessage(errno);
    fprintf(stderr, KJP_LOG_PREFIX "*** Warning ***: '%s=%s' cannot be read (%s); the defaults are used\n", optionName,
            *optionPath, reason != nullptr ? reason : "unknown error");
    fflush(stderr);
  }
  delete[] *optionPath;
  *optionPath = nullptr;
  if (file == nullptr) {
    return false;
  }
  *text = readFile(file);
  fclose(file);
  return true;
}

}  // namespace

Filter::Filter(const char* classNamePattern, const char* methodNamePattern, const char* signaturePattern,
               jint type)
    : myClassNamePattern(nullptr), myMethodNamePattern(nullptr), mySignaturePattern(nullptr), myType(type) {
  KASSERT(classNamePattern);
  myClassNamePattern = k_strdup(classNamePattern);
  myMethodNamePattern = methodNamePattern == nullptr ? nullptr : k_strdup(methodNamePattern);
  mySignaturePattern = signaturePattern == nullptr ? nullptr : k_strdup(signaturePattern);
}

Filter::~Filter() {
  delete[] myClassNamePattern;
  delete[] myMethodNamePattern;
  delete[] mySignaturePattern;
}

bool Filter::accept(const MethodRecord* record) const {
  bool classMatches = wildcardMatch(myClassNamePattern, stringAt(record->myClassNameStrID));
  bool methodMatches = wildcardMatch(myMethodNamePattern, stringAt(record->myNameStrID));
  bool signatureMatches = wildcardMatch(mySignaturePattern, stringAt(record->mySignatureStrID));
  bool accepted = classMatches && methodMatches && signatureMatches;
  return ourInverseFilters ? !accepted : accepted;
}

KString Filter::readFilterSpecFromFile(FILE* file) {
  return file == nullptr ? KString(DEFAULT_FILTER_SPEC) : readFile(file);
}

KString Filter::readWallTimeSpecFromFile(FILE* file) {
  if (file != nullptr) {
    return readFile(file);
  }
  struct passwd* user = getpwuid(getuid());
  const char* home = user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "?";
  KString path(home, "/.kjp/config/.walltime");
  FILE* userFile = fopen(path.get(), "r");
  if (userFile == nullptr) {
    return KString(DEFAULT_WALL_TIME_SPEC);
  }
  KString text = readFile(userFile);
  fclose(userFile);
  return text;
}

KString Filter::readFilterSpecOnStartup() {
  KString text;
  if (readOptionFile("filters", &ourOptions.myFilters, &text)) {
    return text;
  }
  return readFilterSpecFromFile(nullptr);
}

KString Filter::readWallTimeSpecOnStartup() {
  KString text;
  if (readOptionFile("walltimespec", &ourOptions.myWallTimeSpec, &text)) {
    return text;
  }
  return readWallTimeSpecFromFile(nullptr);
}

void Filter::reloadFilters(const KString& filters, const KString& wallTimeSpec) {
  for (jint i = 0; i < ourFilters.size(); i++) {
    delete ourFilters[i];
  }
  ourFilters.clear();

  // A carriage return stays in a filter pattern, which then matches nothing; that is how
  // filter files have always been read.
  KVectorSafe<KString> lines(16);
  filters.split("\n", lines);
  for (jint i = 0; i < lines.size(); i++) {
    KString line = lines[i];
    if (line.startsWith("#")) {
      continue;
    }
    if (line.startsWith("+")) {
      ourInverseFilters = true;
      line = line.substring(1);
    }
    if (line.length() > 0) {
      parseLine(line, TYPE_METHOD_FILTER);
    }
  }

  KVectorSafe<KString> wallLines(16);
  wallTimeSpec.split("\n\r", wallLines);
  for (jint i = 0; i < wallLines.size(); i++) {
    const KString& line = wallLines[i];
    if (line.startsWith("#") || line.length() == 0) {
      continue;
    }
    parseLine(line, TYPE_WALL_TIME);
  }

  for (const auto& entry : WAIT_LIST) {
    ourFilters.push(new Filter(entry[0], entry[1], nullptr, TYPE_WAIT));
  }

  DBTable<MethodRecord>* methods = ourDB->myMethodTable;
  methods->forEachStampedRecord([](jint, MethodRecord* record) {
    if (record->myModificationStamp > 0) {
      applyFilters(record);
    }
  });
}

void Filter::applyFilters(MethodRecord* record) {
  bool wall = false;
  bool filtered = false;
  bool wait = false;
  for (jint i = 0; i < ourFilters.size() && !(wall && filtered && wait); i++) {
    Filter* filter = ourFilters[i];
    switch (filter->myType) {
      case TYPE_WALL_TIME:
        wall = wall || filter->accept(record);
        break;
      case TYPE_METHOD_FILTER:
        filtered = filtered || filter->accept(record);
        break;
      case TYPE_WAIT:
        wait = wait || filter->accept(record);
        break;
      default:
        break;
    }
  }
  jint flags = record->myFlags & ~(MF_WALL_TIME | MF_FILTERED | MF_WAIT);
  if (wall) {
    flags |= MF_WALL_TIME;
  } else {
    if (filtered && (record->myFlags & MF_J2EE) == 0) {
      flags |= MF_FILTERED;
    }
    if (wait) {
      flags |= MF_WAIT;
    }
  }
  if (flags != record->myFlags) {
    record->myFlags = flags;
    record->myModificationStamp = ourDB->myModificationStamp;
  }
}
