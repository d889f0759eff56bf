#include "snapshot/ExitSnapshot.h"

#include <jvmti.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/Options.h"
#include "agent/TextUtil.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "snapshot/SnapshotCapture.h"
#include "snapshot/SnapshotFile.h"
#include "snapshot/SnapshotNaming.h"

namespace {

// A system property of the JVM, or empty when it has none. -D options of the command line are
// among them, so a user.home given there wins as it does for Java code.
KString getJVMProperty(const char* name) {
  char* value = nullptr;
  if (ourJVMTI == nullptr || ourJVMTI->GetSystemProperty(name, &value) != JVMTI_ERROR_NONE || value == nullptr) {
    return KString();
  }
  KString result(value);
  deallocate(value);
  return result;
}

// The account's home and name as Java reads them: from the password database, not $HOME.
KString getUserHome() {
  KString home = getJVMProperty("user.home");
  if (home.length() > 0) {
    return home;
  }
  struct passwd* account = getpwuid(getuid());
  if (account != nullptr && account->pw_dir != nullptr) {
    return KString(account->pw_dir);
  }
  const char* environment = getenv("HOME");
  return KString(environment == nullptr ? "" : environment);
}

KString getUserName() {
  KString name = getJVMProperty("user.name");
  if (name.length() > 0) {
    return name;
  }
  struct passwd* account = getpwuid(getuid());
  return KString(account != nullptr && account->pw_name != nullptr ? account->pw_name : "");
}

void log(const char* message, const char* detail = nullptr) {
  if (ourOptions.myQuiet) {
    return;
  }
  fprintf(stderr, KJP_LOG_PREFIX "%s%s\n", message, detail == nullptr ? "" : detail);
  fflush(stderr);
}

// The JVM's properties go into the properties table, values as string indices, so that a
// snapshot tells which JVM ran and how it was started.
void storeJVMProperties() {
  LockHolder holder(&ourLock, "ExitSnapshot(78)");
  jint count = 0;
  char** names = nullptr;
  if (ourJVMTI->GetSystemProperties(&count, &names) == JVMTI_ERROR_NONE) {
    for (jint i = 0; i < count; i++) {
      if (names[i] != nullptr && names[i][0] != 0) {
        KString value = getJVMProperty(names[i]);
        ourDB->setProperty(names[i], ourDB->myStrPool->getDBIndex(value.get(), true));
      }
      deallocate(names[i]);
    }
    deallocate(names);
  }
  ourDB->setProperty("kjp.agent.version", ourDB->myStrPool->getDBIndex(KJP_AGENT_VERSION_TEXT, true));
}

// The directory checks of a capture; false with the reason logged.
bool prepareDirectory(const KString& directory) {
  struct stat info;
  if (stat(directory.get(), &info) != 0) {
    makeDirectories(directory.get());
  } else {
    if (access(directory.get(), W_OK) != 0) {
      KString message("User ", getUserName());
      message += " has no write access to the directory ";
      log(message.get(), directory.get());
      return false;
    }
    if (!S_ISDIR(info.st_mode)) {
      log("The snapshot directory is not a directory: ", directory.get());
      return false;
    }
  }
  if (stat(directory.get(), &info) != 0) {
    log("Snapshot directory doesn't exist: ", directory.get());
    return false;
  }
  return true;
}

}  // namespace

bool isExitSnapshotWanted(jlong status, const Options& options) {
  return options.myOnExitMemory || options.myOnExitSnapshot ||
         (status & (ALLOCATION_RECORDING_BIT | CPU_TIMES_BIT | MONITORS_BIT)) != 0;
}

jlong getExitSnapshotFlags(jlong status, const Options& options) {
  if (options.myOnExitMemory || (status & ALLOCATION_RECORDING_BIT) != 0) {
    return SNAPSHOT_WITH_HEAP;
  }
  return 0;
}

void captureSnapshotOnExit(JNIEnv* env) {
  jlong status = ourStatus;
  if (!isExitSnapshotWanted(status, ourOptions)) {
    return;
  }
  jlong flags = getExitSnapshotFlags(status, ourOptions) | SNAPSHOT_CAUSE_SHUTDOWN;

  char* dirOption = unquote(ourOptions.myDir);
  KString home = getUserHome();
  KString directory = getSnapshotDirectory(dirOption, home.get());
  delete[] dirOption;
  if (!prepareDirectory(directory)) {
    return;
  }
  char canonical[PATH_MAX];
  if (realpath(directory.get(), canonical) != nullptr) {
    directory = canonical;
  }

  KString quotedSession = ourOptions.getSessionName();
  char* sessionName = unquote(quotedSession.get());
  KString baseName = makeSnapshotBaseName(sessionName, "shutdown", time(nullptr));
  delete[] sessionName;
  KString path = chooseSnapshotFile(directory.get(), baseName, SNAPSHOT_FILE_EXTENSION);

  // Registered before it is written, so the file is known to the session even if the write fails.
  addSnapshotInfo(path.get(), flags);
  storeJVMProperties();
  KString error;
  if (captureSnapshotToFile(env, path.get(), 0, flags, true, &error)) {
    log("Snapshot is saved to ", path.get());
  } else {
    KString message("Cannot capture snapshot ", path);
    message += ": ";
    log(message.get(), error.get());
  }
}
