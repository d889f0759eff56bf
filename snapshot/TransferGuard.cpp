#include "snapshot/TransferGuard.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KLock.h"
#include "agent/KMap.h"
#include "agent/KString.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "snapshot/SnapshotCapture.h"

namespace {

struct FileIdentity {
  dev_t myDevice;
  ino_t myInode;
  off_t mySize;
  bool myReadable;
};

// By the string pool index of the path, which the snapshot table keeps alive.
KMap<jint, FileIdentity>& seals() {
  static KMap<jint, FileIdentity>* ourSeals = new KMap<jint, FileIdentity>(64);
  return *ourSeals;
}

}  // namespace

void sealSnapshotFile(const char* path) {
  LockHolder holder(&ourLock, "TransferGuard(32)");
  struct stat status;
  FileIdentity identity = {0, 0, 0, false};
  if (lstat(path, &status) == 0 && S_ISREG(status.st_mode)) {
    identity = FileIdentity{status.st_dev, status.st_ino, status.st_size, true};
  }
  seals().put(ourDB->myStrPool->getDBIndex(path, true), identity);
}

jint openForTransfer(const char* path, jlong* size) {
  LockHolder holder(&ourLock, "TransferGuard(43)");
  FileIdentity identity = {0, 0, 0, false};
  jint pathIndex = ourDB->myStrPool->getDBIndex(path, false);
  if (pathIndex == 0 || !findSnapshot(KString(path)) || !seals().get(pathIndex, &identity)) {
    return TRANSFER_UNKNOWN;
  }
  int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) {
    return errno == ENOENT ? TRANSFER_MISSING : TRANSFER_CHANGED;
  }
  struct stat status;
  if (!identity.myReadable || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_dev != identity.myDevice || status.st_ino != identity.myInode || status.st_size != identity.mySize) {
    close(fd);
    return TRANSFER_CHANGED;
  }
  // Opened without blocking, so that a FIFO put in its place could not hold the listener.
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  *size = identity.mySize;
  return fd;
}

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_runtime_Core_sealSnapshot(JNIEnv* env, jclass, jstring path) {
  sealSnapshotFile(createUTFKStringFromJString(env, path).get());
}

JNIEXPORT jlong JNICALL Java_com_kestrix_runtime_Core_openSnapshotForTransfer(JNIEnv* env, jclass, jstring path,
                                                                             jobject descriptor) {
  jlong size = 0;
  jint fd = openForTransfer(createUTFKStringFromJString(env, path).get(), &size);
  if (fd < 0) {
    return fd;
  }
  jclass descriptorClass = env->GetObjectClass(descriptor);
  jfieldID field = env->GetFieldID(descriptorClass, "fd", "I");
  env->DeleteLocalRef(descriptorClass);
  if (field == nullptr) {
    env->ExceptionClear();
    close(fd);
    return TRANSFER_CHANGED;
  }
  env->SetIntField(descriptor, field, fd);
  return size;
}

}  // extern "C"
