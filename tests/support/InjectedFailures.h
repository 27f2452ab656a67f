#pragma once

#include <cstddef>
#include <functional>

/// Lets calls of the C library fail that cannot be made to fail otherwise. Linking the library of this name
/// puts it between an executable's own objects and malloc, free, fwrite, pthread_create and pthread_join.
/// Unarmed it hands every call on.
namespace injected_failures {

/// The n-th malloc (from 1) that the calling thread makes from now on answers null, once.
void FailMalloc(int n);

/// The n-th fwrite (from 1) that the calling thread makes from now on stores nothing, once.
void FailFwrite(int n);

/// The n-th pthread_create (from 1) that the calling thread makes from now on answers EAGAIN, once.
void FailPthreadCreate(int n);

/// Called on the creating thread after every thread that was made, before pthread_create returns: it can hold
/// the creator until the new thread has come somewhere. Null takes it away.
void AfterPthreadCreate(std::function<void()> hook);

/// Storage from malloc that has not gone back to free: the difference of the two calls' numbers. Any thread.
int LiveStorage();

/// What the calling thread has last asked malloc for, in bytes.
std::size_t LastMallocSize();

/// Threads that were made, and threads that were joined, since the last Reset. Any thread.
int ThreadsCreated();
int ThreadsJoined();

/// Nothing is armed, no hook, both counts 0.
void Reset();

}  // namespace injected_failures
