// Solid output: the closed bodies of a reduced file, written to a file of their own.
//
// Invariants
//  1. The reduced file is read whole and closed before anything is written, so
//     the solid file may have the reduced file's name and then replaces it.
//  2. Nothing here prints. Failure is -1; the front end gives the message.
//  3. The three limits are compared strictly: a shell whose area or volume equals
//     its limit stays.
#pragma once

// Number of solids written to solidName, or -1. volumeLimit bounds the absolute
// volume of a closed shell, areaLimit the total area of a shell, holeLimit the
// area of a cap over one boundary loop.
int extractSolids(const char *reducedName, const char *solidName, const double *volumeLimit,
                  const double *areaLimit, const double *holeLimit);
