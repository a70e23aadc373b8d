// RunThreads.h: one runner for the work of a set of threads.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "freeFunctions.h"

namespace VELM3D {

// Runs work(t) for t = 0 .. numT - 1, t = 0 on the caller's thread, and
// waits for all of them. An exception in any thread sets bStop, which the
// others read to end early; the first one is thrown again in the caller's
// thread once all have ended, with its thread's assertion report carried
// over, so that a failing thread leaves no thread running and no lock held.
// A share whose thread the system does not start runs on the caller's thread
// after share 0.
template <class Work> void runThreads(size_t numT, std::atomic<bool>& bStop, const Work& work) {
  std::mutex errorMutex;
  std::exception_ptr pError;
  std::string errorReport;
  const auto guarded = [&](size_t t) {
    try {
      work(t);
    } catch (...) {
      std::lock_guard<std::mutex> lock(errorMutex);
      if (!pError) {
        pError = std::current_exception();
        errorReport = VelmException::lastReport();
      }
      bStop.store(true);
    }
  };
  std::vector<std::thread> vRunning;
  vRunning.reserve(numT);
  size_t numStarted = 1;
  for (; numStarted < numT; ++numStarted) {
    try {
      vRunning.emplace_back(guarded, numStarted);
    } catch (const std::system_error&) {
      break;
    }
  }
  guarded(0);
  for (size_t t = numStarted; t < numT; ++t) guarded(t);
  for (std::thread& th : vRunning) th.join();
  if (pError) {
    VelmException::carryReport(errorReport);
    std::rethrow_exception(pError);
  }
}

// The threads for n items: numThreads, fewer where a thread would get less
// than minShare of them, at least one.
inline size_t threadsFor(size_t numThreads, size_t n, size_t minShare) {
  return std::max<size_t>(1, std::min(numThreads, n / std::max<size_t>(minShare, 1)));
}

// Runs work(begin, end) on threadsFor(numThreads, n, minShare) threads, for
// consecutive shares of [0, n) that together cover it; the caller's thread
// takes the first share.
template <class Work> void runShares(size_t numThreads, size_t n, size_t minShare, const Work& work) {
  const size_t numT = threadsFor(numThreads, n, minShare);
  std::atomic<bool> bStop(false);
  runThreads(numT, bStop, [&](size_t t) { work(n * t / numT, n * (t + 1) / numT); });
}

} // namespace VELM3D
