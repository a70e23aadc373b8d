// velm3d_core.cpp: the extension module velm3d._core, the link between
// NumPy arrays and one Velm_3D. Everything it knows of meshes it asks the
// library: the intake, point location, the self-test and the failure text.
//
// A Triangulation owns one Velm_3D and the stored vertex of every point it
// was given, by point index. Between calls it keeps these facts:
//  - the customIndex of every stored vertex is the index of the first point
//    with its coordinates (its representative); duplicates point to it;
//  - after an insertion, the customIndex of every live tetrahedron is its row
//    in the simplices array handed out last, numbered 0..m-1 by a breadth-first
//    walk from the incident tetrahedron of the first point.
// Output arrays are filled once, in C++, and handed to NumPy with a capsule
// that owns the buffer; they outlive the Triangulation.
//
// The library keeps process-wide state (tetrahedron labels, the vertex
// store's statics, std::cout), so every call into it holds libraryMutex. The
// mutex is only ever taken with the GIL released: the insertion's progress
// callback takes the GIL while the mutex is held, and the opposite order in
// another thread would deadlock. What the library prints goes to a sink for
// the duration of a call, unless verbose; an assertion's report comes from
// VelmException::lastReport.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <cmath>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "BrixTest3Inline.h"
#include "Velm_3D.h"

namespace py = pybind11;
using namespace VELM3D;

namespace {

std::mutex libraryMutex;

// Row and simplex counts up to this limit get int32 indices, larger ones
// int64. Tests lower it to reach the int64 path with small inputs.
int64_t int32Limit = std::numeric_limits<int32_t>::max();

// For the life of one call into the library: unless verbose, std::cout and
// std::cerr (the only ways it writes) write nowhere, and their state is
// restored afterwards (a stopped timer would leave std::cout in fixed
// notation otherwise).
class ConsoleGuard {
public:
  explicit ConsoleGuard(bool bVerbose)
      : pOldOut(std::cout.rdbuf()), pOldErr(std::cerr.rdbuf()), oldFlags(std::cout.flags()),
        oldPrecision(std::cout.precision()) {
    if (bVerbose) return;
    std::cout.rdbuf(&sink);
    std::cerr.rdbuf(&sink);
  }
  ~ConsoleGuard() {
    std::cout.rdbuf(pOldOut);
    std::cerr.rdbuf(pOldErr);
    std::cout.flags(oldFlags);
    std::cout.precision(oldPrecision);
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
  std::streambuf* pOldOut;
  std::streambuf* pOldErr;
  std::ios_base::fmtflags oldFlags;
  std::streamsize oldPrecision;
  Sink sink;
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

  bool report(unsigned long numDone, unsigned long numTotal) {
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

class Triangulation {
public:
  explicit Triangulation(bool bVerbose_) : bVerbose(bVerbose_) {
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(libraryMutex);
    ConsoleGuard console(bVerbose);
    pVelm.reset(new Velm_3D());
  }

  ~Triangulation() {
    // Destroying a large mesh prints (the pools count their blocks), so it
    // happens under the mutex with the console guarded. The GIL is given up
    // only if another thread is inside the library, which can't be the case
    // at interpreter exit.
    const auto destroy = [this] {
      ConsoleGuard console(bVerbose);
      release();
    };
    if (libraryMutex.try_lock()) {
      destroy();
      libraryMutex.unlock();
    } else {
      py::gil_scoped_release nogil;
      std::lock_guard<std::mutex> lock(libraryMutex);
      destroy();
    }
  }

  bool isOpen() const { return pVelm != nullptr; }
  bool is3D() const { return pVelm != nullptr && pVelm->is3D(); }

  // Inserts the rows of xyz (float64, C order, shape (n,3)) and answers the
  // arrays of the whole triangulation: (simplices, neighbors,
  // vertex_of_point, coplanar). Bad rows raise ValueError before anything is
  // stored; an interrupt or a library failure closes the object.
  py::tuple insert(const py::array_t<double, py::array::c_style>& xyz, py::object progress) {
    int64_t n = 0;
    const double* pXyz = rowsOf(xyz, n);
    ProgressContext context{progress, PendingError()};
    IndexArrays<int32_t> arrays32;
    IndexArrays<int64_t> arrays64;
    bool bInt64 = false;
    callLibrary(context, true, [&](Failure& failure) {
      if (!rowsInDomain(pXyz, n, failure)) return;
      insertRows(pXyz, n, context);
      if (context.pending.isSet()) return;
      bInt64 = static_cast<int64_t>(vHandles.size()) > int32Limit || !numberAndFill(arrays32);
      if (bInt64) numberAndFill(arrays64);
    });
    return bInt64 ? arrays64.toPython() : arrays32.toPython();
  }

  // Row of the simplices array of a tetrahedron that contains each query
  // point (closed: points on facets, edges and vertices are found), -1 for
  // points outside the convex hull and for NaN or infinite coordinates; by
  // exact point location.
  py::array findSimplex(const py::array_t<double, py::array::c_style>& xyz) {
    int64_t n = 0;
    const double* pXyz = rowsOf(xyz, n);
    Buffer<int64_t> vResult(static_cast<size_t>(n));
    ProgressContext context{py::none(), PendingError()};
    callLibrary(context, false, [&](Failure&) {
      std::vector<Tet3*> vTets;
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
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(libraryMutex);
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
  // Runs work(failure) with the GIL released, under the library mutex and
  // with the console caught. A bad row, an interrupt, an assertion report or
  // exhausted memory comes out as the matching Python exception; after the
  // last three, bCloseOnFailure releases the mesh, whose state is unknown.
  template <class F> void callLibrary(ProgressContext& context, bool bCloseOnFailure, F work) {
    if (pVelm == nullptr)
      throw std::runtime_error("the triangulation was closed, interrupted or failed; its arrays remain");
    Failure failure;
    {
      py::gil_scoped_release nogil;
      std::lock_guard<std::mutex> lock(libraryMutex);
      ConsoleGuard console(bVerbose);
      try {
        work(failure);
        if (context.pending.isSet()) failure.kind = Failure::INTERRUPTED;
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

  // Tetrahedron numbers alternate their form from one numbering to the next
  // (i, then -(i+2)), so that the numbers of the previous numbering, like
  // the -1 of tetrahedra made since, read as "not numbered yet" without a
  // pass that clears them.
  bool isNumbered(int ci) const { return (generation & 1) != 0 ? ci <= -2 : ci >= 0; }
  int encodeTet(size_t i) const {
    return (generation & 1) != 0 ? -static_cast<int>(i) - 2 : static_cast<int>(i);
  }
  int64_t tetIndex(const Tet3* pTet) const {
    const int ci = pTet->getCustomIndex();
    return (generation & 1) != 0 ? -static_cast<int64_t>(ci) - 2 : ci;
  }

  // With the mutex held: numbers all live tetrahedra, breadth first from the
  // first point's incident tetrahedron, and fills the index arrays in the
  // same pass. A tetrahedron gets its number when it is first seen, so its
  // row can be written, with all its neighbours' numbers, when it is taken
  // from the queue. The records lie all over memory in no order the walk
  // can follow, so the time goes into cache misses; the queue shows what
  // comes next, and two prefetch stages ahead of the walk (the records,
  // then their neighbours and corners) overlap the misses. False if the
  // count exceeds what I is to hold; the caller then numbers again with
  // 64-bit indices.
  template <class I> bool numberAndFill(IndexArrays<I>& out) {
    ++generation;
    const size_t numPts = vHandles.size();
    const int64_t maxTets = std::min<int64_t>(sizeof(I) == 4 ? int32Limit : std::numeric_limits<int64_t>::max(),
                                              std::numeric_limits<int>::max() - 2);
    size_t capacity = 7 * numPts + 16; // 6.7 per point for uniform points
    std::vector<Tet3*> vQueue;
    if (pVelm->is3D()) {
      vQueue.reserve(capacity);
      out.simplices.resize(4 * capacity);
      out.neighbors.resize(4 * capacity);
      Tet3* pSeed = vHandles[0]->getOneTet();
      pSeed->setCustomIndex(encodeTet(0));
      vQueue.push_back(pSeed);
    }
    const size_t ahead = 16;
    for (size_t k = 0; k < vQueue.size(); ++k) {
      if (k + 2 * ahead < vQueue.size()) __builtin_prefetch(vQueue[k + 2 * ahead]);
      if (k + ahead < vQueue.size()) {
        const Tet3* pNext = vQueue[k + ahead];
        for (int i = 0; i < 4; ++i) {
          __builtin_prefetch(pNext->getOppTet(i));
          __builtin_prefetch(pNext->getCorner(i));
        }
      }
      if (k == capacity) {
        capacity += capacity / 2;
        out.simplices.resize(4 * capacity);
        out.neighbors.resize(4 * capacity);
      }
      const Tet3* pTet = vQueue[k];
      I* pS = out.simplices.data() + 4 * k;
      I* pN = out.neighbors.data() + 4 * k;
      for (int i = 0; i < 4; ++i) {
        pS[i] = static_cast<I>(pTet->getCorner(i)->getCustomIndex());
        Tet3* pOpp = pTet->getOppTet(i);
        if (pOpp == nullptr) {
          pN[i] = -1;
          continue;
        }
        if (!isNumbered(pOpp->getCustomIndex())) {
          if (static_cast<int64_t>(vQueue.size()) >= maxTets) {
            if (sizeof(I) == 4) return false;
            throw std::bad_alloc();
          }
          pOpp->setCustomIndex(encodeTet(vQueue.size()));
          vQueue.push_back(pOpp);
        }
        pN[i] = static_cast<I>(tetIndex(pOpp));
      }
    }
    const size_t numTets = vQueue.size();
    out.simplices.resize(4 * numTets);
    out.neighbors.resize(4 * numTets);
    // vertex_of_point, and the rows [point, a tetrahedron of its vertex,
    // its vertex] for the points that repeat an earlier one.
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
    return true;
  }

  std::unique_ptr<Velm_3D> pVelm;
  std::vector<Point3*> vHandles; // the stored vertex of each point
  std::vector<int> vRepresentative; // and that vertex's customIndex
  bool bVerbose;
  unsigned generation = 0; // of the tetrahedron numbering
};

// ---------------------------------------------------------------------------
// Derived arrays, from the index arrays alone (no library, no mutex).

template <class I> py::array vertexToSimplex(const py::array_t<I, py::array::c_style>& simplices, int64_t numPoints) {
  const int64_t m = simplices.shape(0);
  const I* pS = simplices.data();
  Buffer<I> v(static_cast<size_t>(numPoints));
  {
    py::gil_scoped_release nogil;
    std::fill(v.data(), v.data() + numPoints, I(-1));
    for (int64_t t = 0; t < m; ++t)
      for (int i = 0; i < 4; ++i) v[pS[4 * t + i]] = static_cast<I>(t);
  }
  return v.toNumPy({numPoints});
}

// The vertices joined to each vertex by an edge, in CSR form, each list
// ascending: the star of a vertex is walked through the neighbours across
// the facets that contain it.
template <class I>
py::tuple vertexNeighborVertices(const py::array_t<I, py::array::c_style>& simplices,
                                 const py::array_t<I, py::array::c_style>& neighbors,
                                 const py::array_t<I, py::array::c_style>& vertexToSimplex) {
  const int64_t numPoints = vertexToSimplex.shape(0);
  const I* pS = simplices.data();
  const I* pN = neighbors.data();
  const I* pV2S = vertexToSimplex.data();
  Buffer<I> vIndptr(static_cast<size_t>(numPoints) + 1);
  Buffer<I> vIndices(static_cast<size_t>(simplices.shape(0)) * 3 + 16); // about 20 per vertex, needs 16
  size_t numIndices = 0;
  {
    py::gil_scoped_release nogil;
    std::vector<I> vStack, vTetsSeen, vStar;
    std::vector<int64_t> vLastSeen(numPoints, -1);
    std::vector<int64_t> vTetSeenBy(static_cast<size_t>(simplices.shape(0)), -1);
    vIndptr[0] = 0;
    for (int64_t v = 0; v < numPoints; ++v) {
      vStar.clear();
      if (pV2S[v] >= 0) {
        vStack.assign(1, pV2S[v]);
        vTetSeenBy[pV2S[v]] = v;
        while (!vStack.empty()) {
          const I t = vStack.back();
          vStack.pop_back();
          for (int i = 0; i < 4; ++i) {
            const I w = pS[4 * t + i];
            if (w == v) continue;
            if (vLastSeen[w] != v) {
              vLastSeen[w] = v;
              vStar.push_back(w);
            }
            // The facet opposite w contains v.
            const I o = pN[4 * t + i];
            if (o >= 0 && vTetSeenBy[o] != v) {
              vTetSeenBy[o] = v;
              vStack.push_back(o);
            }
          }
        }
        std::sort(vStar.begin(), vStar.end());
        if (numIndices + vStar.size() > vIndices.size()) vIndices.resize(2 * (numIndices + vStar.size()));
        std::copy(vStar.begin(), vStar.end(), vIndices.data() + numIndices);
        numIndices += vStar.size();
      }
      vIndptr[v + 1] = static_cast<I>(numIndices);
    }
    vIndices.resize(numIndices);
  }
  return py::make_tuple(vIndptr.toNumPy({numPoints + 1}), vIndices.toNumPy({static_cast<py::ssize_t>(numIndices)}));
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
  py::gil_scoped_release nogil;
  std::lock_guard<std::mutex> lock(libraryMutex);
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
      .def("insert", &Triangulation::insert, py::arg("xyz"), py::arg("progress") = py::none())
      .def("find_simplex", &Triangulation::findSimplex, py::arg("xyz"))
      .def("check", &Triangulation::check)
      .def("close", &Triangulation::close)
      .def_property_readonly("is_open", &Triangulation::isOpen)
      .def_property_readonly("is_3d", &Triangulation::is3D)
      .def("_fail_assertion_for_test", &Triangulation::failAssertionForTest);
  m.def("vertex_to_simplex", &vertexToSimplex<int32_t>);
  m.def("vertex_to_simplex", &vertexToSimplex<int64_t>);
  m.def("vertex_neighbor_vertices", &vertexNeighborVertices<int32_t>);
  m.def("vertex_neighbor_vertices", &vertexNeighborVertices<int64_t>);
  m.def("convex_hull", &convexHull<int32_t>);
  m.def("convex_hull", &convexHull<int64_t>);
  m.def("_orientation_sign", &orientationSign);
  m.def("_two_product_tail", &twoProductTail);
  m.def("_set_int32_limit", [](int64_t limit) { int32Limit = limit; });
}
