#ifndef KJP_KLOCK_H
#define KJP_KLOCK_H

#include <pthread.h>

// A recursive mutex: natives that hold the agent lock call others that take it again.
class KLock {
 public:
  KLock();
  ~KLock();
  KLock(const KLock&) = delete;
  KLock& operator=(const KLock&) = delete;

  void lock();
  void unlock();

 private:
  pthread_mutex_t myMutex;
};

// Holds a KLock for the lifetime of a scope. The site text ("JVMTI_Agent(286)") names the
// lock site for whoever reads the code in a debugger; it isn't stored.
class LockHolder {
 public:
  LockHolder(KLock* lock, const char* site) : myLock(lock) {
    (void)site;
    myLock->lock();
  }
  ~LockHolder() { myLock->unlock(); }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

 private:
  KLock* myLock;
};

#endif
