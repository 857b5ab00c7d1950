#include "platform/threads.hpp"

#include <pthread.h>

#include <algorithm>
namespace {

// Held while the threads are started, so that all of them exist at once.
pthread_mutex_t Gate = PTHREAD_MUTEX_INITIALIZER;

void* PassGate(void*) {
  ::pthread_mutex_lock(&Gate);
  ::pthread_mutex_unlock(&Gate);
  return nullptr;
}

}  // namespace

int PLATFORM_STARTABLETHREADS(int wanted) {
  pthread_t threads[MostThreads];
  wanted = std::min(wanted, MostThreads);
  int started = 0;
  ::pthread_mutex_lock(&Gate);
  while (started < wanted && ::pthread_create(&threads[started], nullptr, PassGate, nullptr) == 0)
    ++started;
  ::pthread_mutex_unlock(&Gate);
  std::for_each_n(threads, started, [](pthread_t thread) { ::pthread_join(thread, nullptr); });
  return started;
}
