// The leaves of the reduction engine.
#include "reduce/reduce.h"

// Stand-in until the engine exists: leaves the mesh as it is.
int32_t reduceOnePass(qvMesh *mesh, double tol, const double *angle) {
  (void)mesh;
  (void)tol;
  (void)angle;
  return 0;
}

// Stand-in until the engine exists: leaves the mesh as it is.
int32_t reduceStepped(qvMesh *mesh, double tol, const double *angle) {
  (void)mesh;
  (void)tol;
  (void)angle;
  return 0;
}
