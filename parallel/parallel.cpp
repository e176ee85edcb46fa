// The parallel entries of the medium and low methods.
#include "parallel/parallel.h"

#include "reduce/reduce.h"

// Stand-in until the partition exists: the whole shell is one leaf.
int32_t reduceParallelMedium(qvMesh *mesh, double tolerance, const double *angleRef) {
  return reduceOnePass(mesh, tolerance, angleRef);
}

// Stand-in until the partition exists: the whole shell is one leaf.
int32_t reduceParallelLow(qvMesh *mesh, double tolerance, const double *angleRef) {
  return reduceStepped(mesh, tolerance, angleRef);
}
