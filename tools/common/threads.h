// The threads that ask gateways, and their end. A program ends in this order: beginEnding(), then
// its destructors, which only ask the threads to end, then endThreads().
#ifndef ZEBTOOL_THREADS_H
#define ZEBTOOL_THREADS_H

#include <chrono>
#include <functional>
#include <mutex>
#include <shared_mutex>

namespace zebtool {

// Starts a thread that asks a gateway. It may outlive the caller, so the work must own or share
// what it uses; it must return soon after it is asked to end. Throws a Fault (kNotConnected).
void startThread(std::function<void()> work);

// Begins the end of the program: later calls of the library wait only briefly, and waitForEvent()
// does not wait at all.
void beginEnding();
[[nodiscard]] bool isEnding();

// Waits until the deadline, or until beginEnding(), for one of poll's events on a descriptor.
// Returns whether there is one.
[[nodiscard]] bool waitForEvent(int file, short event,
                                std::chrono::steady_clock::time_point deadline);

// To be held while an answer is read: the end closes connections of other threads, and that frees
// their answers.
[[nodiscard]] std::shared_lock<std::shared_mutex> holdAnswers();

// Ends all threads, wakes those that wait for gateways, and returns the exit code. A thread that
// cannot be woken is not waited for: then the process ends here, without destructors.
int endThreads(int exitCode);

}  // namespace zebtool

#endif  // ZEBTOOL_THREADS_H
