// Velm_3D.cpp: the facade and the version of the library. Every member
// forwards to the one Dt3 in a single call; the facade adds no checks.
#include "Velm_3D.h"

#include <sstream>

namespace VELM3D {

namespace {

// The build passes the version from the file VERSION at the project root
// (CMake through the project() line, setup.py directly).
#if !defined(VELM3D_VERSION_MAJOR) || !defined(VELM3D_VERSION_MINOR) || !defined(VELM3D_VERSION_REVISION)
#error "VELM3D_VERSION_MAJOR, VELM3D_VERSION_MINOR and VELM3D_VERSION_REVISION come from the build (file VERSION)"
#endif
const int VELM3D_CODEVERSION_MAJOR = VELM3D_VERSION_MAJOR;
const int VELM3D_CODEVERSION_MINOR = VELM3D_VERSION_MINOR;
const int VELM3D_CODEVERSION_REVISION = VELM3D_VERSION_REVISION;
const std::string VELM3D_BUILD_TYPE = "RELEASE";

std::string buildIdString() {
  std::ostringstream oss;
  oss << "Velm3D, " << VELM3D_BUILD_TYPE << ", v" << VELM3D_CODEVERSION_MAJOR << "."
      << VELM3D_CODEVERSION_MINOR << "." << VELM3D_CODEVERSION_REVISION;
  return oss.str();
}

const std::string VELM3D_ID_STRING = buildIdString();

} // namespace

std::string getVelm3DVersion() { return VELM3D_ID_STRING; }
int getMajorVersionNumber() { return VELM3D_CODEVERSION_MAJOR; }
int getMinorVersionNumber() { return VELM3D_CODEVERSION_MINOR; }
int getRevisionNumber() { return VELM3D_CODEVERSION_REVISION; }
bool isRelease() { return true; }

void Velm_3D::initVelm() { pDt3 = new Dt3(this); }

Velm_3D::~Velm_3D() {
  if (pDt3 != nullptr) {
    delete pDt3;
    pDt3 = nullptr;
  }
}

void Velm_3D::setVerbosity(bool bVerbose) { pDt3->setVerbosity(bVerbose); }

Point3* Velm_3D::insert(Point3& p) { return pDt3->insert(p); }

void Velm_3D::insert(std::vector<Point3>& vInput) {
  std::vector<Point3*> vUserHandles;
  pDt3->insertVector(vInput, vUserHandles);
}

void Velm_3D::insert(std::vector<Point3>& vInput, std::vector<Point3*>& vUserHandles) {
  pDt3->insertVector(vInput, vUserHandles);
}

void Velm_3D::insertRows(const double* pXyz, size_t numRows, std::vector<Point3*>& vUserHandles) {
  pDt3->insertRows(pXyz, numRows, vUserHandles);
}
void Velm_3D::setProgressCallback(Dt3::ProgressCallback f, void* pUser) { pDt3->setProgressCallback(f, pUser); }

void Velm_3D::setNumThreads(int n) { pDt3->setNumThreads(n); }
int Velm_3D::getNumThreads() const { return pDt3->getNumThreads(); }

void Velm_3D::getVertices(std::vector<Point3*>& vVtx) const { pDt3->getVertexPointers(vVtx); }
void Velm_3D::getTetrahedra(std::vector<Tet3*>& vTet) const { pDt3->getAllTetrahedra(vTet); }
void Velm_3D::getTetrahedraInRecordOrder(std::vector<Tet3*>& vTet) const { pDt3->getTetrahedraInRecordOrder(vTet); }
void Velm_3D::getTetsAroundVertex(Point3* pVtx, std::vector<Tet3*>& vTet) {
  pDt3->getTetsAroundVertex(pVtx, vTet);
}
bool Velm_3D::is3D() const { return pDt3->is3D(); }

Tet3* Velm_3D::locate(const Point3& p) {
  Point3 q(p);
  return pDt3->locate(q);
}

Tet3* Velm_3D::findTetContaining(const Point3& p, Tet3* pHint) { return pDt3->findTetContaining(p, pHint); }

void Velm_3D::findTetsContaining(const double* pXyz, size_t numRows, std::vector<Tet3*>& vTets) {
  pDt3->findTetsContaining(pXyz, numRows, vTets);
}

MeshFault Velm_3D::findFault(bool bComplete) const { return pDt3->findFault(true, true, bComplete); }

bool Velm_3D::checkValidity(const std::string& where, bool bCheckSphereInc) {
  return pDt3->checkValidity(where, true, bCheckSphereInc);
}
void Velm_3D::print(const std::string& name) { pDt3->print(name); }
void Velm_3D::show(const std::string& name, Point3* pVtx) { pDt3->show(name, pVtx); }

} // namespace VELM3D
