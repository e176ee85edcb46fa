// The selection walk of selectShells, apart from the assembly in front of it, so
// that a chain can be judged as it is.
#pragma once

#include <cstdint>

struct qvMesh;

// Judges each shell of an assembled chain in turn (analysis, area, caps,
// volume) and returns the head of what remains, with count as for selectShells.
// A shell that already holds an analysis is judged by it.
qvMesh *selectAssembled(qvMesh *chain, const double *volumeLimit, const double *areaLimit,
                        const double *holeLimit, int32_t *count);
