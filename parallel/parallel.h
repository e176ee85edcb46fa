// Parallel reduction: cuts a shell into pieces, reduces the pieces side by
// side with a leaf of the engine, and joins them again.
//
// Invariants
//  1. Threads exist only inside the two entries; they have all ended when an
//     entry returns, before any mesh is written.
//  2. Each piece belongs to one thread at a time; no record is locked.
//  3. Seam vertices carry the pinned mark while they are shared by two pieces,
//     so neither side removes them.
//  4. The result depends on the processor count only, never on timing.
#pragma once

#include "mesh/qvMesh.h"

// One stitched shell with null next. Triangles taken out, or -1.
int32_t reduceParallelMedium(qvMesh *mesh, double tolerance, const double *angleRef);
int32_t reduceParallelLow(qvMesh *mesh, double tolerance, const double *angleRef);
