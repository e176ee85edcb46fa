// Reduction engine: thins one stitched shell in place by removing vertices,
// each removal accepted by a squared one-sided Hausdorff distance from the
// surface as the pass found it to the surface the removal leaves.
//
// Invariants
//  1. The engine works on the one mesh it is given and touches no other; it
//     knows nothing of files or threads.
//  2. No surviving vertex moves: a removal collapses a vertex onto a neighbour
//     that keeps its coordinates.
//  3. Every distance inside the engine is squared.
//  4. Results are a count that is not negative, or -1 for failure. A failure
//     abandons the mesh without repair; the caller releases it.
//  5. At the end of a leaf the seam mark of the piece's vertices is clear.
#pragma once

#include "mesh/qvMesh.h"

// ---- Leaves -----------------------------------------------------------------

// One pass at the whole tolerance (high and medium methods). Removed count or -1.
// angle: fold angle in degrees, null for the default, negative to skip features.
int32_t reduceOnePass(qvMesh *mesh, double tol, const double *angle);
// Several passes of growing tolerance (low method). Removed count or -1.
int32_t reduceStepped(qvMesh *mesh, double tol, const double *angle);
