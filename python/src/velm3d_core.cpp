// velm3d_core.cpp: the extension module velm3d._core, the link between
// NumPy arrays and one Velm_3D. Everything it knows of meshes it asks the
// library: the intake, point location, the self-test and the failure text.
//
// A Triangulation owns one Velm_3D and the stored vertex of every point it
// was given, by point index. Between calls it keeps these facts:
//  - the customIndex of every stored vertex is the index of the first point
//    with its coordinates (its representative); duplicates point to it;
//  - after an insertion, the customIndex of every live tetrahedron is its row
//    in the simplices array handed out last, numbered 0..m-1 in the order of
//    the library's records.
// Output arrays are filled once, in C++, and handed to NumPy with a capsule
// that owns the buffer; they outlive the Triangulation.
//
// The arrays derived from a mesh (vertex neighbours, barycentric transforms,
// linear and nearest interpolation, the Voronoi diagram) are computed from
// the index arrays alone, without the library or its mutex, with the GIL
// released and on the caller's number of threads; their results do not
// depend on that number. The one library call among them is the exact
// sphere test, through a read-only ExactTest.
//
// Two triangulations may work at once in two threads; the calls on one
// Triangulation take its own mutex. The mutex is only ever taken with the
// GIL released: the insertion's progress callback takes the GIL while the
// mutex is held, and the opposite order in another thread would deadlock.
// What the library prints goes to a sink while any non-verbose call runs;
// an assertion's report comes from VelmException::lastReport.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "BrixTest3Inline.h"
#include "Velm_3D.h"

namespace py = pybind11;
using namespace VELM3D;

namespace {

// Row and simplex counts up to this limit get int32 indices, larger ones
// int64. Tests lower it to reach the int64 path with small inputs.
int64_t int32Limit = std::numeric_limits<int32_t>::max();

// The thread that imported the module, taken for the one that will shut the
// interpreter down.
unsigned long mainThreadIdent = 0;

// Whether the interpreter is shutting down in a thread other than this one.
// Python then ends any other thread that asks for the GIL with a forced
// unwind (pthread_exit), which a destructor on the way turns into
// std::terminate: the abort of a daemon thread inside the library at exit.
bool isFinalizingElsewhere() {
#if PY_VERSION_HEX >= 0x030D0000
  const bool bFinalizing = Py_IsFinalizing() != 0;
#else
  const bool bFinalizing = _Py_IsFinalizing() != 0;
#endif
  return bFinalizing && PyThread_get_thread_ident() != mainThreadIdent;
}

// Releases the GIL for its life. At the end, a thread that finds the
// interpreter shutting down elsewhere waits for the process to end instead
// of taking the GIL back; it holds no lock of ours by then (the library
// mutex is always taken inside this scope). Should the shutdown begin in the
// instant between the test and the call, Python's forced unwind passes
// through this destructor, which may throw for that reason, and pybind11
// lets it go on.
class GilRelease {
public:
  GilRelease() : pState(PyEval_SaveThread()) {}
  ~GilRelease() noexcept(false) {
    while (isFinalizingElsewhere()) std::this_thread::sleep_for(std::chrono::seconds(1));
    PyEval_RestoreThread(pState);
  }
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;

private:
  PyThreadState* pState;
};

// For the life of one call into the library: unless verbose, std::cout and
// std::cerr (the only ways it writes) write nowhere, and their state is
// restored afterwards (a stopped timer would leave std::cout in fixed
// notation otherwise). Calls overlap in threads: the first guard to come
// silences the streams, the last to go restores them (a verbose call that
// overlaps a silent one prints nothing meanwhile).
class ConsoleGuard {
public:
  explicit ConsoleGuard(bool bVerbose) : bActive(!bVerbose) {
    if (!bActive) return;
    std::lock_guard<std::mutex> lock(state().mutex);
    if (state().numActive++ > 0) return;
    state().pOldOut = std::cout.rdbuf(&state().sink);
    state().pOldErr = std::cerr.rdbuf(&state().sink);
    state().oldFlags = std::cout.flags();
    state().oldPrecision = std::cout.precision();
  }
  ~ConsoleGuard() {
    if (!bActive) return;
    std::lock_guard<std::mutex> lock(state().mutex);
    if (--state().numActive > 0) return;
    std::cout.rdbuf(state().pOldOut);
    std::cerr.rdbuf(state().pOldErr);
    std::cout.flags(state().oldFlags);
    std::cout.precision(state().oldPrecision);
    std::cout.clear();
    std::cerr.clear();
  }
  ConsoleGuard(const ConsoleGuard&) = delete;
  ConsoleGuard& operator=(const ConsoleGuard&) = delete;

private:
  // Takes every character and keeps none.
  class Sink : public std::streambuf {
  protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
  };
  struct State {
    std::mutex mutex;
    int numActive = 0;
    std::streambuf* pOldOut = nullptr;
    std::streambuf* pOldErr = nullptr;
    std::ios_base::fmtflags oldFlags{};
    std::streamsize oldPrecision = 0;
    Sink sink;
  };
  static State& state() {
    static State* pState = new State(); // never destroyed: guards may run at exit
    return *pState;
  }
  bool bActive;
};

// A Python exception caught on the library's side of a call (the interrupt,
// or one raised by the progress display), raised again once the call is out.
class PendingError {
public:
  PendingError() : pType(nullptr), pValue(nullptr), pTrace(nullptr) {}
  ~PendingError() {
    Py_XDECREF(pType);
    Py_XDECREF(pValue);
    Py_XDECREF(pTrace);
  }
  PendingError(const PendingError&) = delete;
  PendingError& operator=(const PendingError&) = delete;
  bool isSet() const { return pType != nullptr; }
  // With the GIL held and a Python error set.
  void fetch() { PyErr_Fetch(&pType, &pValue, &pTrace); }
  [[noreturn]] void raise() {
    PyErr_Restore(pType, pValue, pTrace);
    pType = pValue = pTrace = nullptr;
    throw py::error_already_set();
  }

private:
  PyObject* pType;
  PyObject* pValue;
  PyObject* pTrace;
};

// Takes the GIL for a moment to let Python run its signal handlers (Ctrl-C)
// and to show progress. Answers false when the work is to stop.
struct ProgressContext {
  py::object progress; // callable (numDone, numTotal) or None
  PendingError pending;
  bool bAbandoned = false; // the interpreter is shutting down: the work stops

  bool report(unsigned long numDone, unsigned long numTotal) {
    if (isFinalizingElsewhere()) {
      bAbandoned = true;
      return false;
    }
    py::gil_scoped_acquire gil;
    if (PyErr_CheckSignals() != 0) {
      pending.fetch();
      return false;
    }
    if (!progress.is_none()) {
      PyObject* pResult = PyObject_CallFunction(progress.ptr(), "kk", numDone, numTotal);
      if (pResult == nullptr) {
        pending.fetch();
        return false;
      }
      Py_DECREF(pResult);
    }
    return true;
  }
  static bool onProgress(void* pUser, unsigned long numDone, unsigned long numTotal) {
    return static_cast<ProgressContext*>(pUser)->report(numDone, numTotal);
  }
};

// Why a library call ended early; turned into a Python exception once the
// mutex is released and the GIL is back.
struct Failure {
  enum Kind { NONE, ASSERTION, NO_MEMORY, INTERRUPTED, BAD_ROW } kind = NONE;
  std::string message;
  [[noreturn]] void raise(PendingError& pending) {
    switch (kind) {
    case ASSERTION: throw std::runtime_error("libvelm3d assertion: " + message);
    case NO_MEMORY: throw std::bad_alloc();
    case BAD_ROW: throw py::value_error(message);
    default: pending.raise();
    }
  }
};

// An uninitialised array that can grow and shrink in place (realloc of a
// large block remaps pages, it does not copy), handed to NumPy at the end:
// the capsule frees it with the array.
template <class T> class Buffer {
public:
  explicit Buffer(size_t n = 0) : p(nullptr), num(0) { resize(n); }
  ~Buffer() { free(p); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  void resize(size_t n) {
    T* q = static_cast<T*>(realloc(p, (n == 0 ? 1 : n) * sizeof(T)));
    if (q == nullptr) throw std::bad_alloc();
    p = q;
    num = n;
  }
  T* data() { return p; }
  T& operator[](size_t i) { return p[i]; }
  size_t size() const { return num; }
  py::array toNumPy(std::vector<py::ssize_t> shape) {
    T* raw = p;
    p = nullptr;
    resize(0);
    py::capsule owner(raw, [](void* q) { free(q); });
    return py::array_t<T>(shape, raw, owner);
  }

private:
  T* p;
  size_t num;
};

// False, with the first row of an (n,3) array that holds a NaN or an
// infinity named in the failure, if there is one. Every finite double is
// input: the predicates are exact for all of them.
bool rowsInDomain(const double* p, int64_t n, Failure& failure) {
  for (int64_t i = 0; i < n; ++i)
    for (int k = 0; k < 3; ++k) {
      const double c = p[3 * i + k];
      if (std::isfinite(c)) continue;
      std::ostringstream oss;
      oss.precision(17);
      oss << "row " << i << ": coordinate " << c << " is not finite";
      failure.kind = Failure::BAD_ROW;
      failure.message = oss.str();
      return false;
    }
  return true;
}

const double* rowsOf(const py::array_t<double, py::array::c_style>& a, int64_t& n) {
  if (a.ndim() != 2 || a.shape(1) != 3) throw py::value_error("expected an array of shape (n, 3)");
  n = a.shape(0);
  return a.data();
}

// The index arrays of one triangulation state, filled without the GIL.
template <class I> struct IndexArrays {
  Buffer<I> simplices, neighbors, vertexOfPoint, coplanar;
  py::tuple toPython() {
    const py::ssize_t m = static_cast<py::ssize_t>(simplices.size() / 4);
    const py::ssize_t k = static_cast<py::ssize_t>(coplanar.size() / 3);
    const py::ssize_t n = static_cast<py::ssize_t>(vertexOfPoint.size());
    return py::make_tuple(simplices.toNumPy({m, 4}), neighbors.toNumPy({m, 4}), vertexOfPoint.toNumPy({n}),
                          coplanar.toNumPy({k, 3}));
  }
};

// Calls body(chunk, begin, end) for the consecutive chunks of chunkSize
// items of [0, n), taken in turn by up to numWorkers threads, the caller's
// among them. An exception in any thread stops the others from taking more
// and is raised again in the caller once all have stopped. A thread that
// can't be started leaves its share to the others.
template <class F> void forChunks(int numWorkers, size_t n, size_t chunkSize, F body) {
  const size_t numChunks = (n + chunkSize - 1) / chunkSize;
  std::atomic<size_t> next(0);
  std::exception_ptr pError;
  std::mutex errorMutex;
  const auto run = [&]() {
    try {
      for (size_t k = next++; k < numChunks; k = next++) body(k, k * chunkSize, std::min(n, (k + 1) * chunkSize));
    } catch (...) {
      std::lock_guard<std::mutex> lock(errorMutex);
      if (!pError) pError = std::current_exception();
      next = numChunks;
    }
  };
  std::vector<std::thread> vThreads;
  const size_t numThreads = std::min<size_t>(static_cast<size_t>(std::max(numWorkers, 1)), numChunks);
  for (size_t i = 1; i < numThreads; ++i) {
    try {
      vThreads.emplace_back(run);
    } catch (std::system_error&) {
      break;
    }
  }
  run();
  for (std::thread& t : vThreads) t.join();
  if (pError) std::rethrow_exception(pError);
}

class Triangulation {
public:
  explicit Triangulation(bool bVerbose_) : bVerbose(bVerbose_) {
    GilRelease nogil;
    ConsoleGuard console(bVerbose);
    pVelm.reset(new Velm_3D());
  }

  ~Triangulation() {
    // Destroying a large mesh prints (the pools count their blocks), so it
    // happens under the mutex with the console guarded. The GIL is given up
    // only if another thread is inside this object, which can't be the case
    // at interpreter exit.
    const auto destroy = [this] {
      ConsoleGuard console(bVerbose);
      release();
    };
    if (mutex.try_lock()) {
      destroy();
      mutex.unlock();
    } else {
      GilRelease nogil;
      std::lock_guard<std::mutex> lock(mutex);
      destroy();
    }
  }

  bool isOpen() const { return pVelm != nullptr; }
  bool is3D() const { return pVelm != nullptr && pVelm->is3D(); }

  // Inserts the rows of xyz (float64, C order, shape (n,3)) and answers the
  // arrays of the whole triangulation: (simplices, neighbors,
  // vertex_of_point, coplanar). Bad rows raise ValueError before anything is
  // stored; an interrupt or a library failure closes the object. The
  // insertion runs on numWorkers threads (validated by the caller).
  py::tuple insert(const py::array_t<double, py::array::c_style>& xyz, py::object progress, int numWorkers) {
    int64_t n = 0;
    const double* pXyz = rowsOf(xyz, n);
    ProgressContext context{progress, PendingError()};
    IndexArrays<int32_t> arrays32;
    IndexArrays<int64_t> arrays64;
    bool bInt64 = false;
    callLibrary(context, true, [&](Failure& failure) {
      if (!rowsInDomain(pXyz, n, failure)) return;
      pVelm->setNumThreads(numWorkers);
      insertRows(pXyz, n, context);
      if (context.pending.isSet() || context.bAbandoned) return;
      std::vector<Tet3*> vTets;
      numberInRecordOrder(vTets, numWorkers);
      bInt64 = static_cast<int64_t>(std::max(vHandles.size(), vTets.size())) > int32Limit;
      if (bInt64)
        fillInRecordOrder(vTets, arrays64, numWorkers);
      else
        fillInRecordOrder(vTets, arrays32, numWorkers);
    });
    return bInt64 ? arrays64.toPython() : arrays32.toPython();
  }

  // Row of the simplices array of a tetrahedron that contains each query
  // point (closed: points on facets, edges and vertices are found), -1 for
  // points outside the convex hull and for NaN or infinite coordinates; by
  // exact point location, of the batch in the vertex store's curve order,
  // in runs of that order on numWorkers threads.
  py::array findSimplex(const py::array_t<double, py::array::c_style>& xyz, int numWorkers) {
    int64_t n = 0;
    const double* pXyz = rowsOf(xyz, n);
    Buffer<int64_t> vResult(static_cast<size_t>(n));
    ProgressContext context{py::none(), PendingError()};
    callLibrary(context, false, [&](Failure&) {
      std::vector<Tet3*> vTets;
      pVelm->setNumThreads(numWorkers);
      pVelm->setProgressCallback(&ProgressContext::onProgress, &context);
      pVelm->findTetsContaining(pXyz, static_cast<size_t>(n), vTets);
      pVelm->setProgressCallback(nullptr, nullptr);
      for (int64_t i = 0; i < n; ++i) vResult[i] = vTets[i] != nullptr ? tetIndex(vTets[i]) : -1;
    });
    return vResult.toNumPy({n});
  }

  // The library's exact self-test (findFault): positive orientation,
  // symmetric links over shared facets, the neighbour's vertex strictly
  // beyond each facet and not strictly inside the circumsphere, every stored
  // vertex in the mesh. "" for a valid mesh, else the fault on one line.
  // Nothing is printed and no file is written.
  std::string check() {
    ProgressContext context{py::none(), PendingError()};
    std::string fault;
    callLibrary(context, false, [&](Failure&) {
      if (pVelm->is3D()) fault = pVelm->findFault(true).describe();
      if (fault == MeshFault().describe()) fault.clear();
    });
    return fault;
  }

  // Releases the mesh; the arrays handed out stay valid.
  void close() {
    GilRelease nogil;
    std::lock_guard<std::mutex> lock(mutex);
    ConsoleGuard console(bVerbose);
    release();
  }

  // A library assertion on purpose (getAllTetrahedra wants an empty vector),
  // to test the way a report becomes a RuntimeError.
  void failAssertionForTest() {
    ProgressContext context{py::none(), PendingError()};
    callLibrary(context, false, [&](Failure&) {
      std::vector<Tet3*> vTets(1, nullptr);
      pVelm->getTetrahedra(vTets);
    });
  }

private:
  // Runs work(failure) with the GIL released, under the object's mutex and
  // with the console caught. A bad row, an interrupt, an assertion report or
  // exhausted memory comes out as the matching Python exception; after the
  // last three, bCloseOnFailure releases the mesh, whose state is unknown.
  template <class F> void callLibrary(ProgressContext& context, bool bCloseOnFailure, F work) {
    if (pVelm == nullptr)
      throw std::runtime_error("the triangulation was closed, interrupted or failed; its arrays remain");
    Failure failure;
    {
      GilRelease nogil;
      std::lock_guard<std::mutex> lock(mutex);
      ConsoleGuard console(bVerbose);
      try {
        work(failure);
        if (context.pending.isSet() || context.bAbandoned) failure.kind = Failure::INTERRUPTED;
      } catch (VelmException&) {
        failure.kind = Failure::ASSERTION;
        failure.message = VelmException::lastReport();
      } catch (std::bad_alloc&) {
        failure.kind = Failure::NO_MEMORY;
      }
      if (bCloseOnFailure && failure.kind != Failure::NONE && failure.kind != Failure::BAD_ROW) release();
    }
    if (failure.kind != Failure::NONE) failure.raise(context.pending);
  }

  // With the mutex held.
  void release() {
    if (pVelm == nullptr) return;
    pVelm.reset();
    std::vector<Point3*>().swap(vHandles);
    std::vector<int>().swap(vRepresentative);
#ifdef __GLIBC__
    // The mesh's small blocks (ordered-set nodes, arrays) sit in the heap;
    // give its free top and free pages back to the system.
    malloc_trim(0);
#endif
  }

  // With the mutex held: stores and triangulates n rows, records each
  // point's vertex and gives new vertices their representative index.
  void insertRows(const double* pXyz, int64_t n, ProgressContext& context) {
    if (n == 0) return;
    const int64_t numOld = static_cast<int64_t>(vHandles.size());
    if (numOld + n - 1 > std::numeric_limits<int>::max()) throw std::bad_alloc();
    std::vector<Point3*> vBatch;
    pVelm->setProgressCallback(&ProgressContext::onProgress, &context);
    pVelm->insertRows(pXyz, static_cast<size_t>(n), vBatch);
    pVelm->setProgressCallback(nullptr, nullptr);
    // A vertex stored before this call has a representative i below the
    // first new index with vHandles[i] equal to it. Any other customIndex
    // is what the store's fresh record happened to hold, and is replaced.
    // The vertices lie in curve order, the points in input order: the
    // prefetch keeps the misses of this walk overlapping.
    vHandles.insert(vHandles.end(), vBatch.begin(), vBatch.end());
    vRepresentative.resize(vHandles.size());
    for (int64_t i = numOld; i < numOld + n; ++i) {
      if (i + 16 < numOld + n) __builtin_prefetch(vHandles[i + 16]);
      Point3* pVtx = vHandles[i];
      const int64_t ci = pVtx->getCustomIndex();
      if (!(ci >= 0 && ci < i && vHandles[ci] == pVtx)) pVtx->setCustomIndex(static_cast<int>(i));
      vRepresentative[i] = pVtx->getCustomIndex();
    }
  }

  static int64_t tetIndex(const Tet3* pTet) { return pTet->getCustomIndex(); }

  // With the mutex held: all live tetrahedra into vTets in the order of
  // their records (a scan of the pools), each numbered with its place there,
  // on numWorkers threads. A breadth-first walk over the mesh took 0.46 s at
  // 1M points, the scan and fillInRecordOrder 0.2 s on two threads. The
  // library takes records in an order that the points decide when it
  // inserts on one thread; when several threads built the mesh, the order
  // depends on their timing.
  void numberInRecordOrder(std::vector<Tet3*>& vTets, int numWorkers) {
    if (pVelm->is3D()) pVelm->getTetrahedraInRecordOrder(vTets);
    if (vTets.size() > static_cast<size_t>(std::numeric_limits<int>::max())) throw std::bad_alloc();
    forChunks(numWorkers, vTets.size(), tetChunk, [&](size_t, size_t begin, size_t end) {
      for (size_t k = begin; k < end; ++k) vTets[k]->setCustomIndex(static_cast<int>(k));
    });
  }

  // The index arrays of the tetrahedra numbered by numberInRecordOrder, on
  // numWorkers threads.
  template <class I> void fillInRecordOrder(const std::vector<Tet3*>& vTets, IndexArrays<I>& out, int numWorkers) {
    out.simplices.resize(4 * vTets.size());
    out.neighbors.resize(4 * vTets.size());
    forChunks(numWorkers, vTets.size(), tetChunk, [&](size_t, size_t begin, size_t end) {
      for (size_t k = begin; k < end; ++k) {
        // The neighbours and corners lie all over memory: ask ahead.
        if (k + 8 < end) {
          const Tet3* pAhead = vTets[k + 8];
          for (int i = 0; i < 4; ++i) {
            __builtin_prefetch(pAhead->getOppTet(i));
            __builtin_prefetch(pAhead->getCorner(i));
          }
        }
        const Tet3* pTet = vTets[k];
        I* pS = out.simplices.data() + 4 * k;
        I* pN = out.neighbors.data() + 4 * k;
        for (int i = 0; i < 4; ++i) {
          pS[i] = static_cast<I>(pTet->getCorner(i)->getCustomIndex());
          const Tet3* pOpp = pTet->getOppTet(i);
          pN[i] = pOpp != nullptr ? static_cast<I>(tetIndex(pOpp)) : I(-1);
        }
      }
    });
    fillPointArrays(out);
  }

  // vertex_of_point, and the rows [point, a tetrahedron of its vertex, its
  // vertex] for the points that repeat an earlier one.
  template <class I> void fillPointArrays(IndexArrays<I>& out) {
    const size_t numPts = vHandles.size();
    out.vertexOfPoint.resize(numPts);
    size_t numRepeats = 0;
    for (size_t i = 0; i < numPts; ++i) {
      out.vertexOfPoint[i] = static_cast<I>(vRepresentative[i]);
      numRepeats += static_cast<size_t>(vRepresentative[i]) != i;
    }
    out.coplanar.resize(3 * numRepeats);
    I* pC = out.coplanar.data();
    for (size_t i = 0; i < numPts; ++i) {
      if (static_cast<size_t>(out.vertexOfPoint[i]) == i) continue;
      const Tet3* pOne = vHandles[i]->getOneTet();
      *pC++ = static_cast<I>(i);
      *pC++ = pOne == nullptr ? I(-1) : static_cast<I>(tetIndex(pOne));
      *pC++ = out.vertexOfPoint[i];
    }
  }

  static constexpr size_t tetChunk = size_t(1) << 16;

  std::unique_ptr<Velm_3D> pVelm;
  std::vector<Point3*> vHandles; // the stored vertex of each point
  std::vector<int> vRepresentative; // and that vertex's customIndex
  bool bVerbose;
  std::mutex mutex;        // one call at a time on this object
};

// ---------------------------------------------------------------------------
// Derived arrays, from the index arrays alone (no library, no mutex). The
// work of each runs over chunks of its items, taken in turn by `workers`
// threads; the chunks' results are joined in chunk order, so that the
// arrays do not depend on the number of threads.

template <class I> py::array vertexToSimplex(const py::array_t<I, py::array::c_style>& simplices, int64_t numPoints) {
  const int64_t m = simplices.shape(0);
  const I* pS = simplices.data();
  Buffer<I> v(static_cast<size_t>(numPoints));
  {
    GilRelease nogil;
    std::fill(v.data(), v.data() + numPoints, I(-1));
    for (int64_t t = 0; t < m; ++t)
      for (int i = 0; i < 4; ++i) v[pS[4 * t + i]] = static_cast<I>(t);
  }
  return v.toNumPy({numPoints});
}

// The index arrays of a mesh, read in place.
template <class I> struct MeshView {
  const double* pXyz; // (n, 3)
  const I* pS;        // simplices (m, 4)
  const I* pN;        // neighbors (m, 4)

  const double* xyz(I v) const { return pXyz + 3 * static_cast<int64_t>(v); }
  int cornerIndex(I t, I v) const {
    const I* p = pS + 4 * static_cast<int64_t>(t);
    return p[0] == v ? 0 : p[1] == v ? 1 : p[2] == v ? 2 : 3;
  }
  // The tetrahedra around the edge (v, w) in the order of one turn about it,
  // from t0, which holds both. bOpen when the turn meets the hull: vRing
  // then runs from the tetrahedron on one hull facet to the one on the other.
  void ring(I v, I w, I t0, std::vector<I>& vRing, std::vector<I>& vBack, bool& bOpen) const {
    I vOther[2];
    int k = 0;
    for (int i = 0; i < 4; ++i)
      if (pS[4 * static_cast<int64_t>(t0) + i] != v && pS[4 * static_cast<int64_t>(t0) + i] != w)
        vOther[k++] = pS[4 * static_cast<int64_t>(t0) + i];
    // Through the facet opposite corner c of t: in the next tetrahedron the
    // facet to leave by is the one opposite the third corner of the facet
    // just crossed. False when the walk ends on the hull.
    const auto turn = [&](I c, std::vector<I>& vOut) {
      for (I t = t0;;) {
        const I* p = pS + 4 * static_cast<int64_t>(t);
        const I o = pN[4 * static_cast<int64_t>(t) + cornerIndex(t, c)];
        if (o < 0) return false;
        if (o == t0) return true;
        I z = p[0];
        for (int i = 1; i < 4 && (z == v || z == w || z == c); ++i) z = p[i];
        vOut.push_back(o);
        t = o;
        c = z;
      }
    };
    vRing.assign(1, t0);
    bOpen = !turn(vOther[0], vRing);
    if (!bOpen) return;
    vBack.clear();
    turn(vOther[1], vBack);
    vRing.insert(vRing.begin(), vBack.rbegin(), vBack.rend());
  }
};

// A CSR pair: row r is indices[indptr[r]:indptr[r + 1]].
template <class I> struct Csr {
  Buffer<I> indptr, indices;
  py::tuple toPython() {
    const py::ssize_t n = static_cast<py::ssize_t>(indptr.size());
    const py::ssize_t e = static_cast<py::ssize_t>(indices.size());
    return py::make_tuple(indptr.toNumPy({n}), indices.toNumPy({e}));
  }
};

// The lists of some rows, made in chunks (the rows vOwner[c], their sizes
// and their items one after the other), placed in row order.
template <class I> struct ChunkedLists {
  std::vector<std::vector<I>> vOwner, vSize, vItems; // per chunk
  explicit ChunkedLists(size_t numChunks) : vOwner(numChunks), vSize(numChunks), vItems(numChunks) {}
  void reserve(size_t c, size_t numRows, size_t numItems) {
    vOwner[c].reserve(numRows);
    vSize[c].reserve(numRows);
    vItems[c].reserve(numItems);
  }
  void add(size_t c, I row, const std::vector<I>& vList) {
    vOwner[c].push_back(row);
    vSize[c].push_back(static_cast<I>(vList.size()));
    vItems[c].insert(vItems[c].end(), vList.begin(), vList.end());
  }
  void toCsr(int64_t numRows, int numWorkers, Csr<I>& out) {
    out.indptr.resize(static_cast<size_t>(numRows) + 1);
    std::fill(out.indptr.data(), out.indptr.data() + numRows + 1, I(0));
    for (size_t c = 0; c < vOwner.size(); ++c)
      for (size_t k = 0; k < vOwner[c].size(); ++k) out.indptr[vOwner[c][k] + 1] = vSize[c][k];
    for (int64_t r = 0; r < numRows; ++r) out.indptr[r + 1] += out.indptr[r];
    out.indices.resize(static_cast<size_t>(out.indptr[numRows]));
    forChunks(numWorkers, vOwner.size(), 1, [&](size_t c, size_t, size_t) {
      const I* pFrom = vItems[c].data();
      for (size_t k = 0; k < vOwner[c].size(); ++k) {
        std::copy(pFrom, pFrom + vSize[c][k], out.indices.data() + out.indptr[vOwner[c][k]]);
        pFrom += vSize[c][k];
      }
      std::vector<I>().swap(vItems[c]);
    });
  }
};

// The vertices in the order of the tetrahedra that vertex_to_simplex gives
// them: neighbours in that order share records, where the points' own order
// may be random.
template <class I> std::vector<I> verticesInMeshOrder(const I* pS, int64_t m, const I* pV2S) {
  std::vector<I> vOrder;
  for (int64_t t = 0; t < m; ++t)
    for (int i = 0; i < 4; ++i)
      if (pV2S[pS[4 * t + i]] == t) vOrder.push_back(pS[4 * t + i]);
  return vOrder;
}

// The vertices of the mesh (the points with a tetrahedron) in the Morton
// order of their coordinates, scaled to 21 bits over their bounding box:
// vertices close in that order are close in space.
template <class I> std::vector<I> verticesInSpaceOrder(const double* pXyz, const I* pV2S, int64_t numPoints) {
  double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
  for (int64_t i = 0; i < numPoints; ++i)
    if (pV2S[i] >= 0)
      for (int k = 0; k < 3; ++k) {
        lo[k] = std::min(lo[k], pXyz[3 * i + k]);
        hi[k] = std::max(hi[k], pXyz[3 * i + k]);
      }
  double scale[3];
  for (int k = 0; k < 3; ++k) {
    scale[k] = 2097151.0 / (hi[k] - lo[k]); // a flat or overflowing extent leaves that axis out
    if (!(hi[k] > lo[k]) || !std::isfinite(scale[k])) scale[k] = 0.0;
  }
  // Bit b of x moves to bit 3b.
  const auto spread = [](uint64_t x) {
    x &= 0x1fffff;
    x = (x | x << 32) & 0x1f00000000ffffull;
    x = (x | x << 16) & 0x1f0000ff0000ffull;
    x = (x | x << 8) & 0x100f00f00f00f00full;
    x = (x | x << 4) & 0x10c30c30c30c30c3ull;
    return (x | x << 2) & 0x1249249249249249ull;
  };
  std::vector<std::pair<uint64_t, I>> vKeyed;
  for (int64_t i = 0; i < numPoints; ++i) {
    if (pV2S[i] < 0) continue;
    uint64_t key = 0;
    for (int k = 0; k < 3; ++k)
      key |= spread(static_cast<uint64_t>((pXyz[3 * i + k] - lo[k]) * scale[k])) << k;
    vKeyed.emplace_back(key, static_cast<I>(i));
  }
  std::sort(vKeyed.begin(), vKeyed.end());
  std::vector<I> vOrder(vKeyed.size());
  for (size_t r = 0; r < vKeyed.size(); ++r) vOrder[r] = vKeyed[r].second;
  return vOrder;
}

// The mesh of the Voronoi pass renumbered for its walks: vertex r is
// vOrder[r], and the tetrahedra are grouped by their lowest-ranked corner,
// so that the stars of vertices taken in rank order lie together in memory
// (in the simplices' own order a star is scattered over the arrays, and the
// walks about each vertex and edge were bound by those cache misses). The
// corners of each tetrahedron keep their order. The star of vertex r is
// vStar[vStarFirst[r]:vStarFirst[r + 1]]; tetrahedron t of the arrays given
// is vOldOf's entry. vClass and vCentre, filled by the caller, hold each
// tetrahedron's class and the Voronoi vertex of its class.
// Without coordinates (mesh.pXyz null) vXyz stays empty.
template <class I> struct RankedMesh {
  std::vector<double> vXyz, vCentre;
  std::vector<I> vS, vN, vOldOf, vStarFirst, vStar, vClass;

  RankedMesh(const MeshView<I>& mesh, int64_t m, const std::vector<I>& vOrder, int64_t numPoints, int numWorkers) {
    const int64_t n = static_cast<int64_t>(vOrder.size());
    std::vector<I> vRank(static_cast<size_t>(numPoints), I(-1)), vNewOf;
    vXyz.resize(mesh.pXyz != nullptr ? 3 * static_cast<size_t>(n) : 0);
    for (int64_t r = 0; r < n; ++r) {
      vRank[vOrder[r]] = static_cast<I>(r);
      if (mesh.pXyz != nullptr) std::copy(mesh.xyz(vOrder[r]), mesh.xyz(vOrder[r]) + 3, vXyz.data() + 3 * r);
    }
    vNewOf.resize(static_cast<size_t>(m));
    vStarFirst.assign(static_cast<size_t>(n) + 1, I(0));
    for (int64_t t = 0; t < m; ++t) {
      const I* p = mesh.pS + 4 * t;
      vNewOf[t] = std::min(std::min(vRank[p[0]], vRank[p[1]]), std::min(vRank[p[2]], vRank[p[3]]));
      ++vStarFirst[vNewOf[t] + 1];
    }
    for (int64_t r = 0; r < n; ++r) vStarFirst[r + 1] += vStarFirst[r];
    vOldOf.resize(static_cast<size_t>(m));
    for (int64_t t = 0; t < m; ++t) {
      vNewOf[t] = vStarFirst[vNewOf[t]]++;
      vOldOf[vNewOf[t]] = static_cast<I>(t);
    }
    vS.resize(4 * static_cast<size_t>(m));
    vN.resize(4 * static_cast<size_t>(m));
    forChunks(numWorkers, static_cast<size_t>(m), 1 << 16, [&](size_t, size_t begin, size_t end) {
      for (size_t t = begin; t < end; ++t) {
        const int64_t nt = vNewOf[t];
        for (int i = 0; i < 4; ++i) {
          const I o = mesh.pN[4 * t + i];
          vS[4 * nt + i] = vRank[mesh.pS[4 * t + i]];
          vN[4 * nt + i] = o < 0 ? I(-1) : vNewOf[o];
        }
      }
    });
    std::fill(vStarFirst.begin(), vStarFirst.end(), I(0));
    for (int64_t k = 0; k < 4 * m; ++k) ++vStarFirst[vS[k] + 1];
    for (int64_t r = 0; r < n; ++r) vStarFirst[r + 1] += vStarFirst[r];
    vStar.resize(4 * static_cast<size_t>(m));
    std::vector<I> vNext(vStarFirst.begin(), vStarFirst.end() - 1);
    for (int64_t k = 0; k < 4 * m; ++k) vStar[vNext[vS[k]]++] = static_cast<I>(k / 4);
  }
  MeshView<I> view() const { return {vXyz.data(), vS.data(), vN.data()}; }

  // The other corners of the star of v (vCorners), each with a tetrahedron
  // that holds it and v (vCornerTet); bHull when a facet at v lies on the
  // hull (the Voronoi cell of v is then unbounded). vSeen, over all
  // vertices, holds no v on entry.
  void corners(I v, std::vector<I>& vSeen, std::vector<I>& vCorners, std::vector<I>& vCornerTet, bool& bHull) const {
    vCorners.clear();
    vCornerTet.clear();
    bHull = false;
    for (I s = vStarFirst[v]; s < vStarFirst[v + 1]; ++s) {
      const int64_t t = vStar[s];
      for (int i = 0; i < 4; ++i) {
        const I w = vS[4 * t + i];
        if (w == v) continue;
        bHull |= vN[4 * t + i] < 0;
        if (vSeen[w] != v) {
          vSeen[w] = v;
          vCorners.push_back(w);
          vCornerTet.push_back(static_cast<I>(t));
        }
      }
    }
  }
};

// The chunks of a pass over n vertices in which each chunk marks what it has
// seen in an array over all vertices: few, four per worker.
inline size_t markingChunkSize(size_t n, int numWorkers) {
  return std::max<size_t>(2048, n / (4 * static_cast<size_t>(std::max(numWorkers, 1))) + 1);
}

// The vertices joined to each vertex by an edge, in CSR form, each list
// ascending: the corners of the star of each vertex. Linear in the size of
// the mesh: each vertex reads its own star once.
template <class I>
py::tuple vertexNeighborVertices(const py::array_t<I, py::array::c_style>& simplices,
                                 const py::array_t<I, py::array::c_style>& neighbors,
                                 const py::array_t<I, py::array::c_style>& vertexToSimplex, int numWorkers) {
  const int64_t numPoints = vertexToSimplex.shape(0);
  const MeshView<I> mesh{nullptr, simplices.data(), neighbors.data()};
  const I* pV2S = vertexToSimplex.data();
  Csr<I> csr;
  {
    GilRelease nogil;
    const std::vector<I> vOrder = verticesInMeshOrder(mesh.pS, simplices.shape(0), pV2S);
    const RankedMesh<I> ranked(mesh, simplices.shape(0), vOrder, numPoints, numWorkers);
    const size_t chunkSize = markingChunkSize(vOrder.size(), numWorkers);
    ChunkedLists<I> lists((vOrder.size() + chunkSize - 1) / chunkSize);
    forChunks(numWorkers, vOrder.size(), chunkSize, [&](size_t c, size_t begin, size_t end) {
      std::vector<I> vSeen(vOrder.size(), I(-1)), vCorners, vCornerTet;
      bool bHull;
      for (size_t k = begin; k < end; ++k) {
        ranked.corners(static_cast<I>(k), vSeen, vCorners, vCornerTet, bHull);
        for (I& w : vCorners) w = vOrder[w];
        std::sort(vCorners.begin(), vCorners.end());
        lists.add(c, vOrder[k], vCorners);
      }
    });
    lists.toCsr(numPoints, numWorkers, csr);
  }
  return csr.toPython();
}

// 3x3 determinant of the rows u, v, w.
inline double det3(const double* u, const double* v, const double* w) {
  return u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0]) + u[2] * (v[0] * w[1] - v[1] * w[0]);
}

// scipy's barycentric transform of each tetrahedron, shape (m, 4, 3): rows
// 0-2 the inverse of T = [p0 - p3, p1 - p3, p2 - p3] (as columns), row 3 the
// corner p3, so that c = T^-1 (x - p3) are the first three barycentric
// coordinates of x. NaN where T is singular in floating point (a sliver
// whose determinant rounds to 0).
template <class I>
py::array transform(const py::array_t<double, py::array::c_style>& points, const py::array_t<I, py::array::c_style>& simplices,
                    int numWorkers) {
  const int64_t m = simplices.shape(0);
  const double* pXyz = points.data();
  const I* pS = simplices.data();
  Buffer<double> v(static_cast<size_t>(m) * 12);
  {
    GilRelease nogil;
    forChunks(numWorkers, static_cast<size_t>(m), 1 << 15, [&](size_t, size_t begin, size_t end) {
      for (size_t t = begin; t < end; ++t) {
        const double* r = pXyz + 3 * static_cast<int64_t>(pS[4 * t + 3]);
        double c[3][3]; // the columns of T
        for (int j = 0; j < 3; ++j)
          for (int k = 0; k < 3; ++k) c[j][k] = pXyz[3 * static_cast<int64_t>(pS[4 * t + j]) + k] - r[k];
        // The rows of T^-1 are the cross products of pairs of columns over det T.
        double* out = v.data() + 12 * t;
        const double det = det3(c[0], c[1], c[2]);
        for (int j = 0; j < 3; ++j) {
          const double* a = c[(j + 1) % 3];
          const double* b = c[(j + 2) % 3];
          const double cross[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
          for (int k = 0; k < 3; ++k) out[3 * j + k] = det != 0 ? cross[k] / det : std::nan("");
        }
        std::copy(r, r + 3, out + 9);
      }
    });
  }
  return v.toNumPy({static_cast<py::ssize_t>(m), 4, 3});
}

// Linear interpolation of the k columns of values (one row per point) at
// each query row of xi, in the tetrahedron simplexOf gives it (-1: the row
// of fill). The weight of corner i is the volume of the tetrahedron with x
// in place of corner i, over the sum of the four, each volume taken from x:
// at a corner, the three others have a zero row and are exactly 0, so the
// corner's value comes back exactly.
template <class I>
py::array interpolateLinear(const py::array_t<double, py::array::c_style>& points,
                            const py::array_t<I, py::array::c_style>& simplices,
                            const py::array_t<I, py::array::c_style>& simplexOf,
                            const py::array_t<double, py::array::c_style>& xi,
                            const py::array_t<double, py::array::c_style>& values,
                            const py::array_t<double, py::array::c_style>& fill, int numWorkers) {
  const int64_t q = xi.shape(0), k = values.shape(1);
  if (simplexOf.shape(0) != q || fill.shape(0) != k || values.shape(0) != points.shape(0))
    throw py::value_error("inconsistent shapes");
  const double* pXyz = points.data();
  const I* pS = simplices.data();
  const I* pOf = simplexOf.data();
  const double* pQ = xi.data();
  const double* pVal = values.data();
  const double* pFill = fill.data();
  Buffer<double> out(static_cast<size_t>(q * k));
  {
    GilRelease nogil;
    forChunks(numWorkers, static_cast<size_t>(q), 4096, [&](size_t, size_t begin, size_t end) {
      for (size_t j = begin; j < end; ++j) {
        double* pOut = out.data() + j * k;
        const int64_t t = pOf[j];
        if (t < 0) {
          std::copy(pFill, pFill + k, pOut);
          continue;
        }
        const double* x = pQ + 3 * j;
        double d[4][3];
        for (int i = 0; i < 4; ++i)
          for (int c = 0; c < 3; ++c) d[i][c] = pXyz[3 * static_cast<int64_t>(pS[4 * t + i]) + c] - x[c];
        const double w[4] = {det3(d[1], d[2], d[3]), -det3(d[0], d[2], d[3]), det3(d[0], d[1], d[3]),
                             -det3(d[0], d[1], d[2])};
        const double sum = (w[0] + w[1]) + (w[2] + w[3]);
        std::fill(pOut, pOut + k, 0.0);
        for (int i = 0; i < 4; ++i) {
          const double wi = w[i] / sum;
          const double* pV = pVal + static_cast<int64_t>(pS[4 * t + i]) * k;
          for (int64_t c = 0; c < k; ++c) pOut[c] += wi * pV[c];
        }
      }
    });
  }
  return out.toNumPy({static_cast<py::ssize_t>(q), static_cast<py::ssize_t>(k)});
}

// The nearest vertex to each query row: from a corner of its tetrahedron (or,
// outside the hull, from the previous answer), to the closest neighbour in
// the Delaunay graph while one is closer. The graph holds a closer
// neighbour of every vertex that is not the nearest, so the descent ends at
// the nearest (up to rounding in the distances). -1 for a query that is
// not finite.
template <class I>
py::array nearestVertex(const py::array_t<double, py::array::c_style>& points,
                        const py::array_t<I, py::array::c_style>& simplices, const py::array_t<I, py::array::c_style>& indptr,
                        const py::array_t<I, py::array::c_style>& indices, const py::array_t<I, py::array::c_style>& simplexOf,
                        const py::array_t<double, py::array::c_style>& xi, int numWorkers) {
  const int64_t q = xi.shape(0);
  const double* pXyz = points.data();
  const I* pS = simplices.data();
  const I* pPtr = indptr.data();
  const I* pIdx = indices.data();
  const I* pOf = simplexOf.data();
  const double* pQ = xi.data();
  Buffer<int64_t> out(static_cast<size_t>(q));
  {
    GilRelease nogil;
    forChunks(numWorkers, static_cast<size_t>(q), 4096, [&](size_t, size_t begin, size_t end) {
      int64_t prev = pS[0];
      for (size_t j = begin; j < end; ++j) {
        const double* x = pQ + 3 * j;
        if (!(std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]))) {
          out[j] = -1;
          continue;
        }
        const auto dist2 = [&](int64_t v) {
          const double* p = pXyz + 3 * v;
          return (p[0] - x[0]) * (p[0] - x[0]) + (p[1] - x[1]) * (p[1] - x[1]) + (p[2] - x[2]) * (p[2] - x[2]);
        };
        int64_t best = prev;
        if (pOf[j] >= 0)
          for (int i = 0; i < 4; ++i)
            if (i == 0 || dist2(pS[4 * pOf[j] + i]) < dist2(best)) best = pS[4 * pOf[j] + i];
        double bestD = dist2(best);
        for (int64_t from = -1; from != best;) {
          from = best;
          for (I e = pPtr[from]; e < pPtr[from + 1]; ++e) {
            const double dw = dist2(pIdx[e]);
            if (dw < bestD) {
              bestD = dw;
              best = pIdx[e];
            }
          }
        }
        out[j] = prev = best;
      }
    });
  }
  return out.toNumPy({static_cast<py::ssize_t>(q)});
}

const ExactTest& predicates() {
  static const ExactTest exact;
  return exact;
}

// Whether e lies exactly on the sphere through a, b, c, d: the sphere
// test's filter, then, where it leaves the sign open, the exact class.
bool isOnSphere(const double* a, const double* b, const double* c, const double* d, const double* e) {
  double det, permanent, floor;
  kernels::insphereFilter(a, b, c, d, e, det, permanent, floor);
  if (kernels::filterDecides(det, predicates().isperrboundA * permanent + floor)) return false;
  double p[5][3];
  const double* src[5] = {a, b, c, d, e};
  for (int i = 0; i < 5; ++i) std::copy(src[i], src[i] + 3, p[i]);
  return predicates().insphereadapt(p[0], p[1], p[2], p[3], p[4], permanent) == 2u;
}

// The centre of the sphere through the corners of tetrahedron t.
template <class I> void circumcenter(const MeshView<I>& mesh, int64_t t, double* pOut) {
  const double* p0 = mesh.xyz(mesh.pS[4 * t]);
  double d[3][3], len2[3];
  for (int i = 0; i < 3; ++i) {
    const double* p = mesh.xyz(mesh.pS[4 * t + i + 1]);
    for (int k = 0; k < 3; ++k) d[i][k] = p[k] - p0[k];
    len2[i] = d[i][0] * d[i][0] + d[i][1] * d[i][1] + d[i][2] * d[i][2];
  }
  const double den = 2 * det3(d[0], d[1], d[2]);
  for (int k = 0; k < 3; ++k) {
    const int k1 = (k + 1) % 3, k2 = (k + 2) % 3;
    // Component k of |d0|^2 (d1 x d2) + |d1|^2 (d2 x d0) + |d2|^2 (d0 x d1).
    double num = 0;
    for (int i = 0; i < 3; ++i) {
      const double* a = d[(i + 1) % 3];
      const double* b = d[(i + 2) % 3];
      num += len2[i] * (a[k1] * b[k2] - a[k2] * b[k1]);
    }
    pOut[k] = p0[k] + num / den;
  }
}

// The Voronoi diagram, dual of the mesh. Tetrahedra whose circumspheres are
// the same sphere give one Voronoi vertex: across each inner facet, the
// neighbour's far corner on the sphere of the tetrahedron (exactly) joins
// the two, and the joined groups are numbered in the order of their first
// tetrahedron, whose circumcentre is the vertex. Then for each vertex v, in
// the Morton order of the points: its region (the vertices of its
// tetrahedra, ascending, -1 first when v lies on the hull), and for each
// edge (v, w): the ridge, the turn of vertices about the edge with repeats
// dropped (and -1 first where the turn meets the hull), kept once when it
// has three entries or more, as scipy keeps them, its points ascending; and
// the volume of the cell of v, the pyramids from v over its ridges,
// infinite on the hull.
// Answers (vertices, ridge_points, ridge indptr, ridge indices, region
// indptr, region indices, point_region, volumes); vertexOfPoint maps each
// point to its vertex.
template <class I>
py::tuple voronoi(const py::array_t<double, py::array::c_style>& points, const py::array_t<I, py::array::c_style>& simplices,
                  const py::array_t<I, py::array::c_style>& neighbors, const py::array_t<I, py::array::c_style>& vertexToSimplex,
                  const py::array_t<I, py::array::c_style>& vertexOfPoint, int numWorkers) {
  const int64_t m = simplices.shape(0), numPoints = points.shape(0);
  const MeshView<I> mesh{points.data(), simplices.data(), neighbors.data()};
  const I* pV2S = vertexToSimplex.data();
  const I* pVop = vertexOfPoint.data();
  Buffer<double> vVertices, vVolume(static_cast<size_t>(numPoints));
  Buffer<I> vRidgePts, vPointRegion(static_cast<size_t>(numPoints));
  Csr<I> ridgeCsr, regionCsr;
  {
    GilRelease nogil;
    const std::vector<I> vOrder = verticesInSpaceOrder(mesh.pXyz, pV2S, numPoints);
    const int64_t n = static_cast<int64_t>(vOrder.size());
    RankedMesh<I> ranked(mesh, m, vOrder, numPoints, numWorkers);
    const MeshView<I> local = ranked.view();
    // Pairs of neighbours on one sphere, under their first numbers.
    const size_t tetChunk = 1 << 14;
    std::vector<std::vector<std::pair<I, I>>> vSame((m + tetChunk - 1) / tetChunk);
    forChunks(numWorkers, static_cast<size_t>(m), tetChunk, [&](size_t c, size_t begin, size_t end) {
      for (size_t t = begin; t < end; ++t)
        for (int j = 0; j < 4; ++j) {
          const I o = local.pN[4 * t + j];
          if (o <= static_cast<int64_t>(t)) continue;
          const I* pON = local.pN + 4 * static_cast<int64_t>(o);
          const int k = pON[0] == static_cast<I>(t) ? 0 : pON[1] == static_cast<I>(t) ? 1 : pON[2] == static_cast<I>(t) ? 2 : 3;
          const I* p = local.pS + 4 * t;
          if (isOnSphere(local.xyz(p[0]), local.xyz(p[1]), local.xyz(p[2]), local.xyz(p[3]),
                         local.xyz(local.pS[4 * static_cast<int64_t>(o) + k])))
            vSame[c].emplace_back(ranked.vOldOf[t], ranked.vOldOf[o]);
        }
    });
    // Union-find with the smallest tetrahedron of each group as its root;
    // then, in place, the classes numbered in the order of their roots.
    std::vector<I> vClass(static_cast<size_t>(m));
    std::vector<I> vFirst; // the first tetrahedron of each class
    for (int64_t t = 0; t < m; ++t) vClass[t] = static_cast<I>(t);
    const auto find = [&](I t) {
      while (vClass[t] != t) t = vClass[t] = vClass[vClass[t]];
      return t;
    };
    for (const auto& v : vSame)
      for (const auto& pr : v) {
        const I a = find(pr.first), b = find(pr.second);
        if (a != b) vClass[std::max(a, b)] = std::min(a, b);
      }
    for (int64_t t = 0; t < m; ++t) vClass[t] = find(static_cast<I>(t));
    for (int64_t t = 0; t < m; ++t) {
      if (vClass[t] == t) {
        vClass[t] = static_cast<I>(vFirst.size());
        vFirst.push_back(static_cast<I>(t));
      } else {
        vClass[t] = vClass[vClass[t]]; // the root, before t, holds its class already
      }
    }
    // The centre of each class from its first tetrahedron, computed where
    // the pass over the renumbered mesh meets that one (its corners are in
    // the cache there), then copied to the class's other tetrahedra.
    vVertices.resize(3 * vFirst.size());
    ranked.vClass.resize(static_cast<size_t>(m));
    ranked.vCentre.resize(3 * static_cast<size_t>(m));
    const auto isFirst = [&](size_t t) { return vFirst[ranked.vClass[t]] == ranked.vOldOf[t]; };
    forChunks(numWorkers, static_cast<size_t>(m), 1 << 16, [&](size_t, size_t begin, size_t end) {
      for (size_t t = begin; t < end; ++t) {
        ranked.vClass[t] = vClass[ranked.vOldOf[t]];
        if (!isFirst(t)) continue;
        double* pCentre = ranked.vCentre.data() + 3 * t;
        circumcenter(local, static_cast<int64_t>(t), pCentre);
        std::copy(pCentre, pCentre + 3, vVertices.data() + 3 * static_cast<int64_t>(ranked.vClass[t]));
      }
    });
    forChunks(numWorkers, static_cast<size_t>(m), 1 << 16, [&](size_t, size_t begin, size_t end) {
      for (size_t t = begin; t < end; ++t)
        if (!isFirst(t)) {
          const double* pCentre = vVertices.data() + 3 * static_cast<int64_t>(ranked.vClass[t]);
          std::copy(pCentre, pCentre + 3, ranked.vCentre.data() + 3 * t);
        }
    });
    std::vector<I>().swap(vClass);
    std::vector<I>().swap(ranked.vOldOf);
    // The vertices on the hull, whose cells are unbounded.
    std::vector<char> vOnHull(static_cast<size_t>(n), 0);
    for (int64_t t = 0; t < m; ++t)
      for (int j = 0; j < 4; ++j)
        if (local.pN[4 * t + j] < 0)
          for (int i = 0; i < 4; ++i)
            if (i != j) vOnHull[local.pS[4 * t + i]] = 1;
    const size_t chunkSize = markingChunkSize(static_cast<size_t>(n), numWorkers);
    const size_t numChunks = (static_cast<size_t>(n) + chunkSize - 1) / chunkSize;
    ChunkedLists<I> regions(numChunks), ridges(numChunks);
    std::vector<std::vector<I>> vRidgePoints(numChunks);
    std::vector<double> vRankVolume(static_cast<size_t>(n));
    // The pyramids from v and from w over the ridge of the edge (v, w) have
    // the same volume: each edge is turned about once, from its lower-ranked
    // end, and w's share waits in its chunk's list until all chunks are done.
    std::vector<std::vector<std::pair<I, double>>> vLaterShare(numChunks);
    forChunks(numWorkers, static_cast<size_t>(n), chunkSize, [&](size_t c, size_t begin, size_t end) {
      std::vector<I> vSeen(static_cast<size_t>(n), I(-1)), vCorners, vCornerTet, vRing, vBack, vTurn, vRegion;
      bool bHull, bOpen;
      // The lists' sizes from the stars' (4 entries a tetrahedron; its 6
      // edges, turned about from one end, 6 entries): growing them by
      // doubling copied them over and over.
      const size_t numStar = static_cast<size_t>(ranked.vStarFirst[end] - ranked.vStarFirst[begin]);
      regions.reserve(c, end - begin, numStar + (end - begin));
      ridges.reserve(c, numStar / 3, numStar * 3 / 2 + numStar / 3);
      vRidgePoints[c].reserve(2 * (numStar / 3));
      vLaterShare[c].reserve(numStar / 3);
      for (size_t k = begin; k < end; ++k) {
        const I v = static_cast<I>(k);
        const double* pv = local.xyz(v);
        ranked.corners(v, vSeen, vCorners, vCornerTet, bHull);
        vRegion.clear();
        for (I s = ranked.vStarFirst[v]; s < ranked.vStarFirst[v + 1]; ++s) vRegion.push_back(ranked.vClass[ranked.vStar[s]]);
        if (bHull) vRegion.push_back(I(-1));
        std::sort(vRegion.begin(), vRegion.end());
        vRegion.erase(std::unique(vRegion.begin(), vRegion.end()), vRegion.end());
        regions.add(c, v, vRegion);
        double volume = 0;
        for (size_t e = 0; e < vCornerTet.size(); ++e) {
          const I w = vCorners[e];
          if (w < v) continue;
          local.ring(v, w, vCornerTet[e], vRing, vBack, bOpen);
          if (!bOpen && !(bHull && vOnHull[w])) {
            // Twice the vector area of the ridge, seen from v; the pyramid
            // over it has height |w - v| / 2.
            const double* pw = local.xyz(w);
            double area[3] = {0, 0, 0};
            for (size_t i = 0; i < vRing.size(); ++i) {
              const double* a = ranked.vCentre.data() + 3 * static_cast<int64_t>(vRing[i]);
              const double* b = ranked.vCentre.data() + 3 * static_cast<int64_t>(vRing[i + 1 < vRing.size() ? i + 1 : 0]);
              const double u[3] = {a[0] - pv[0], a[1] - pv[1], a[2] - pv[2]};
              const double r[3] = {b[0] - pv[0], b[1] - pv[1], b[2] - pv[2]};
              area[0] += u[1] * r[2] - u[2] * r[1];
              area[1] += u[2] * r[0] - u[0] * r[2];
              area[2] += u[0] * r[1] - u[1] * r[0];
            }
            const double pyramid =
                std::abs(area[0] * (pw[0] - pv[0]) + area[1] * (pw[1] - pv[1]) + area[2] * (pw[2] - pv[2])) / 12;
            volume += pyramid;
            if (!vOnHull[w]) vLaterShare[c].emplace_back(w, pyramid);
          }
          vTurn.assign(bOpen ? 1 : 0, I(-1));
          for (I t : vRing)
            if (vTurn.empty() || vTurn.back() != ranked.vClass[t]) vTurn.push_back(ranked.vClass[t]);
          if (!bOpen && vTurn.size() > 1 && vTurn.back() == vTurn.front()) vTurn.pop_back();
          if (vTurn.size() < 3) continue;
          vRidgePoints[c].push_back(std::min(vOrder[v], vOrder[w]));
          vRidgePoints[c].push_back(std::max(vOrder[v], vOrder[w]));
          ridges.add(c, 0, vTurn); // numbered below
        }
        vRankVolume[v] = bHull ? std::numeric_limits<double>::infinity() : volume;
      }
    });
    for (const auto& vShares : vLaterShare)
      for (const auto& share : vShares) vRankVolume[share.first] += share.second;
    // Region r is that of vertex vOrder[r]; the points that repeat a vertex
    // take its region and volume.
    std::vector<I> vRegionOf(static_cast<size_t>(numPoints), I(-1));
    for (int64_t r = 0; r < n; ++r) vRegionOf[vOrder[r]] = static_cast<I>(r);
    for (int64_t i = 0; i < numPoints; ++i) {
      vPointRegion[i] = vRegionOf[pVop[i]];
      vVolume[i] = vRankVolume[vRegionOf[pVop[i]]];
    }
    regions.toCsr(static_cast<int64_t>(vOrder.size()), numWorkers, regionCsr);
    size_t numRidges = 0;
    for (auto& vOwner : ridges.vOwner)
      for (I& r : vOwner) r = static_cast<I>(numRidges++);
    vRidgePts.resize(2 * numRidges);
    I* pR = vRidgePts.data();
    for (const auto& v : vRidgePoints) pR = std::copy(v.begin(), v.end(), pR);
    ridges.toCsr(static_cast<int64_t>(numRidges), numWorkers, ridgeCsr);
  }
  const py::tuple ridgeLists = ridgeCsr.toPython(), regionLists = regionCsr.toPython();
  const py::ssize_t numVertices = static_cast<py::ssize_t>(vVertices.size() / 3);
  const py::ssize_t numRidges = static_cast<py::ssize_t>(vRidgePts.size() / 2);
  return py::make_tuple(vVertices.toNumPy({numVertices, 3}), vRidgePts.toNumPy({numRidges, 2}), ridgeLists[0],
                        ridgeLists[1], regionLists[0], regionLists[1], vPointRegion.toNumPy({numPoints}),
                        vVolume.toNumPy({numPoints}));
}

// The lists [indices[indptr[r]:indptr[r + 1]] for each r] as Python lists of ints.
template <class I>
py::list csrToLists(const py::array_t<I, py::array::c_style>& indptr, const py::array_t<I, py::array::c_style>& indices) {
  const int64_t n = indptr.shape(0) - 1;
  const I* pPtr = indptr.data();
  const I* pIdx = indices.data();
  py::list out(static_cast<size_t>(std::max<int64_t>(n, 0)));
  for (int64_t r = 0; r < n; ++r) {
    PyObject* pList = PyList_New(pPtr[r + 1] - pPtr[r]);
    if (pList == nullptr) throw py::error_already_set();
    for (I e = pPtr[r]; e < pPtr[r + 1]; ++e) {
      PyObject* pInt = PyLong_FromLongLong(pIdx[e]);
      if (pInt == nullptr) {
        Py_DECREF(pList);
        throw py::error_already_set();
      }
      PyList_SET_ITEM(pList, e - pPtr[r], pInt);
    }
    PyList_SET_ITEM(out.ptr(), r, pList);
  }
  return out;
}

// The hull facets, each with its corners counterclockwise seen from outside
// (the facet table's order: the tetrahedron's own corner lies below).
template <class I>
py::array convexHull(const py::array_t<I, py::array::c_style>& simplices, const py::array_t<I, py::array::c_style>& neighbors) {
  const int64_t m = simplices.shape(0);
  const I* pS = simplices.data();
  const I* pN = neighbors.data();
  int64_t h = 0;
  for (int64_t k = 0; k < 4 * m; ++k) h += pN[k] < 0;
  Buffer<I> v(3 * static_cast<size_t>(h));
  I* p = v.data();
  for (int64_t t = 0; t < m; ++t)
    for (int i = 0; i < 4; ++i)
      if (pN[4 * t + i] < 0)
        for (int k = 0; k < 3; ++k) *p++ = pS[4 * t + Tet3::facetIndices[i][k]];
  return v.toNumPy({h, 3});
}

// The exact sign of the orientation of four points, through the library's
// predicates (+1 when d lies on the side to which (b-a) x (c-a) points).
int orientationSign(const py::array_t<double, py::array::c_style | py::array::forcecast>& abcd) {
  if (abcd.ndim() != 2 || abcd.shape(0) != 4 || abcd.shape(1) != 3)
    throw py::value_error("expected four points of three coordinates");
  const double* p = abcd.data();
  const Point3 pa(p[0], p[1], p[2]), pb(p[3], p[4], p[5]), pc(p[6], p[7], p[8]), pd(p[9], p[10], p[11]);
  GilRelease nogil;
  static const ExactTest predicates;
  switch (predicates.getOrientation3(&pa, &pb, &pc, &pd)) {
  case ORIENTATION3_POSITIVE: return 1;
  case ORIENTATION3_NEGATIVE: return -1;
  default: return 0;
  }
}

// The rounding error of a*b as the library's Two_Product finds it: exact
// only when no multiply-add was contracted in this build.
double twoProductTail(double a, double b) {
  const double splitter = 134217729.0; // 2^27 + 1
  double x, y;
  Two_Product(a, b, x, y, splitter);
  return y;
}

} // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "libvelm3d's exact 3D Delaunay triangulation for NumPy arrays (use velm3d.Delaunay)";
  py::class_<Triangulation>(m, "Triangulation")
      .def(py::init<bool>(), py::arg("verbose") = false)
      .def("insert", &Triangulation::insert, py::arg("xyz"), py::arg("progress") = py::none(), py::arg("workers") = 1)
      .def("find_simplex", &Triangulation::findSimplex, py::arg("xyz"), py::arg("workers") = 1)
      .def("check", &Triangulation::check)
      .def("close", &Triangulation::close)
      .def_property_readonly("is_open", &Triangulation::isOpen)
      .def_property_readonly("is_3d", &Triangulation::is3D)
      .def("_fail_assertion_for_test", &Triangulation::failAssertionForTest);
  m.def("vertex_to_simplex", &vertexToSimplex<int32_t>);
  m.def("vertex_to_simplex", &vertexToSimplex<int64_t>);
  m.def("vertex_neighbor_vertices", &vertexNeighborVertices<int32_t>);
  m.def("vertex_neighbor_vertices", &vertexNeighborVertices<int64_t>);
  m.def("transform", &transform<int32_t>);
  m.def("transform", &transform<int64_t>);
  m.def("interpolate_linear", &interpolateLinear<int32_t>);
  m.def("interpolate_linear", &interpolateLinear<int64_t>);
  m.def("nearest_vertex", &nearestVertex<int32_t>);
  m.def("nearest_vertex", &nearestVertex<int64_t>);
  m.def("voronoi", &voronoi<int32_t>);
  m.def("voronoi", &voronoi<int64_t>);
  m.def("csr_to_lists", &csrToLists<int32_t>);
  m.def("csr_to_lists", &csrToLists<int64_t>);
  m.def("convex_hull", &convexHull<int32_t>);
  m.def("convex_hull", &convexHull<int64_t>);
  m.def("_orientation_sign", &orientationSign);
  m.def("_two_product_tail", &twoProductTail);
  m.def("_set_int32_limit", [](int64_t limit) { int32Limit = limit; });
  mainThreadIdent = py::module_::import("threading").attr("main_thread")().attr("ident").cast<unsigned long>();
}
