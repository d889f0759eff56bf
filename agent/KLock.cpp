#include "agent/KLock.h"

#include "agent/KAssert.h"

KLock::KLock() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  int result = pthread_mutex_init(&myMutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  KASSERT(result == 0);
}

// Locks are globals that live to process end; a thread of the JVM may still hold one while
// static destructors run, so the mutex is deliberately not destroyed.
KLock::~KLock() {}

void KLock::lock() {
  int result = pthread_mutex_lock(&myMutex);
  KASSERT(result == 0);
}

void KLock::unlock() {
  int result = pthread_mutex_unlock(&myMutex);
  KASSERT(result == 0);
}
