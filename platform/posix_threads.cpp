// posix_threads.cpp - thread-local slots and critical sections.
//
// A slot is a pthread key; its destructor runs when a thread that stored a
// non-null value exits, which is where the runtime releases that thread's
// settings record (the part thread detach plays on the original platform).
#include <pthread.h>

#include <new>

#include "platform.h"

namespace vk::plat {

uint32_t tls_alloc(void (*on_thread_exit)(void*)) {
  pthread_key_t key;
  if (pthread_key_create(&key, on_thread_exit) != 0) return kNoSlot;
  return static_cast<uint32_t>(key);
}

void* tls_get(uint32_t slot) { return slot == kNoSlot ? nullptr : pthread_getspecific(static_cast<pthread_key_t>(slot)); }

bool tls_set(uint32_t slot, void* value) {
  return slot != kNoSlot && pthread_setspecific(static_cast<pthread_key_t>(slot), value) == 0;
}

void tls_free(uint32_t slot) {
  if (slot != kNoSlot) pthread_key_delete(static_cast<pthread_key_t>(slot));
}

static_assert(sizeof(pthread_mutex_t) <= sizeof(CriticalSection::storage), "mutex fits the storage");

void cs_init(CriticalSection& cs) {
  if (cs.initialised) return;
  new (cs.storage) pthread_mutex_t(PTHREAD_MUTEX_INITIALIZER);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(reinterpret_cast<pthread_mutex_t*>(cs.storage), &attr);
  pthread_mutexattr_destroy(&attr);
  cs.initialised = true;
}

void cs_enter(CriticalSection& cs) {
  if (cs.initialised) pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(cs.storage));
}

void cs_leave(CriticalSection& cs) {
  if (cs.initialised) pthread_mutex_unlock(reinterpret_cast<pthread_mutex_t*>(cs.storage));
}

void cs_delete(CriticalSection& cs) {
  if (!cs.initialised) return;
  pthread_mutex_destroy(reinterpret_cast<pthread_mutex_t*>(cs.storage));
  cs.initialised = false;
}

}  // namespace vk::plat
