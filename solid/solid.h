// Solid output: the closed bodies of a reduced file, written to a file of their own.
//
// Invariants
//  1. The reduced file is read whole and closed before anything is written.
//     A failed write deletes the solid file, so a caller whose solid file would
//     replace a file worth keeping hands in a name of its own and renames it.
//  2. Nothing here prints. Failure is -1 (a count of -1 for selectShells); the
//     front end gives the message.
//  3. The three limits are compared strictly: a shell whose area or volume equals
//     its limit stays, and a cap whose area equals the hole limit is accepted.
//  4. One shell whose analysis is not a valid surface fails the whole
//     extraction; no shell is merely skipped.
//  5. A solid is one shell that survived: closed (no boundary loop left after
//     capping) and, when it can be oriented, enclosing at least the volume limit.
#pragma once

#include <cstdint>

struct qvMesh;

// Number of solids written to solidName, or -1. volumeLimit bounds the absolute
// volume of a closed shell, areaLimit the total area of a shell, holeLimit the
// area of a cap over one boundary loop. The reduced file is welded with fixed
// tolerances, independent of the limits.
[[nodiscard]] int extractSolids(const char *reducedName, const char *solidName, const double *volumeLimit,
                  const double *areaLimit, const double *holeLimit);

// Assembles mesh, an unassembled soup that stands alone (no prev, no next),
// into shells and keeps those that pass: shells below the area limit are
// dropped first, holes with caps within the hole limit are closed, and closed
// orientable shells below the volume limit are dropped. Open shells stay and
// count. A null limit skips its test (a null holeLimit caps every hole).
// Returns the head of the chain that remains, with count the shells in it, or
// count -1 on failure: the mesh as given when it was refused, otherwise the
// chain as it stood, for the caller to release.
qvMesh *selectShells(qvMesh *mesh, const double *volumeLimit, const double *areaLimit,
                     const double *holeLimit, int32_t *count);
