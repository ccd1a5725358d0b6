#ifndef TESSEL_SINGLETON_H
#define TESSEL_SINGLETON_H

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

// instance() and close_instance() of a process-wide object that is made on
// first use and destroyed only when asked, so the owner orders start and stop.
#define TESSEL_DEFINE_SINGLETON(X)                                                              \
  X* X::instance() { return ACE_Unmanaged_Singleton<X, ACE_Null_Mutex>::instance(); }           \
  void X::close_instance() { ACE_Unmanaged_Singleton<X, ACE_Null_Mutex>::close(); }

#endif
