// Shell selection and solid writing.
//
// The extraction starts from the reduced file on disk, not from anything the
// reduction held in memory, so it is the same for every method. Welding the
// whole file again joins the seams that block borders left. Then, shell by
// shell: scraps below the area limit go before any cap is built for them,
// holes whose cap stays within the hole limit are closed, and closed shells
// that enclose less than the volume limit go. Shells still open are removed
// only at the very end, when the rest is written.
#include "solid/solid.h"
#include "solid/solid_internal.h"

#include "kernels/failure.h"
#include "mesh/qvMesh.h"
#include "stl/stl.h"

#include <cmath>

namespace {

// Welding of the reduced file, linear and on the squared distance. Fixed here:
// the user's tolerance bounds the reduction, not what counts as one vertex.
constexpr double kSolidWeld[2] = {1e-06, 1e-12};

// qvTopo.orient: the lowest bit is set for a surface that cannot be oriented.
constexpr int32_t kOrientImpossible = 1;

// Sign handed to the writer: corners in their cycle order, as the shells stand.
constexpr int kWriteAsStored = 0;

// True when the shell encloses less than the volume limit and so must go. Only
// a closed orientable shell has a volume; any other is never dropped here.
// status receives -1 when the volume cannot be measured.
bool belowVolume(const qvMesh *shell, const double *volumeLimit, int32_t *status) {
  const qvTopo *topo = shell->topo;
  if (!volumeLimit || topo->nLoop != 0 || (topo->orient & kOrientImpossible))
    return false;
  const double volume = std::fabs(qvMeshVolume(shell, nullptr, status));
  return *status == 0 && *volumeLimit > volume;
}

// The failed end of a selection: count -1 and the chain as it now stands.
qvMesh *selectionFailed(qvMesh *head, int32_t *count) {
  *count = -1;
  return head;
}

// The failed end of an extraction: whatever chain exists is released.
int extractionFailed(qvMesh *chain) {
  qvMeshDeleteAll(chain);
  return -1;
}

} // namespace

qvMesh *selectAssembled(qvMesh *chain, const double *volumeLimit, const double *areaLimit,
                        const double *holeLimit, int32_t *count) {
  int32_t unused;
  int32_t *kept = count ? count : &unused;
  *kept = 0;
  qvMesh *head = chain;
  for (qvMesh *shell = chain, *next = nullptr; shell; shell = next) {
    next = shell->next; // read before the shell may be released
    // A shell without an analysis gets one, its code in result. A failed
    // analysis or a code other than 0 ends the whole selection.
    if (!shell->topo)
      (void)qvMeshTopoMake(shell); // its code is read from topo below
    if (!shell->topo || shell->topo->result != 0)
      return FT_FAIL(selectionFailed(head, kept));
    if (areaLimit && *areaLimit > qvMeshArea(shell)) {
      head = qvMeshDropChained(head, shell);
      continue;
    }
    // Closing analyses the shell again whenever it added a cap, so nLoop now
    // holds the loops that stayed open.
    if (qvMeshClose(shell, holeLimit) < 0)
      return FT_FAIL(selectionFailed(head, kept));
    int32_t status = 0;
    const bool drop = belowVolume(shell, volumeLimit, &status);
    if (status != 0)
      return FT_FAIL(selectionFailed(head, kept));
    if (drop) {
      head = qvMeshDropChained(head, shell);
      continue;
    }
    ++*kept;
  }
  return head;
}

qvMesh *selectShells(qvMesh *mesh, const double *volumeLimit, const double *areaLimit,
                     const double *holeLimit, int32_t *count) {
  int32_t unused;
  int32_t *kept = count ? count : &unused;
  *kept = 0;
  // A mesh that is part of a chain is refused untouched; a soup without a
  // single shell (no triangles) is a failure too.
  if (!mesh || mesh->prev || mesh->next || qvMeshAssemble(mesh, kSolidWeld) < 1)
    return FT_FAIL(selectionFailed(mesh, kept));
  return selectAssembled(mesh, volumeLimit, areaLimit, holeLimit, kept);
}

int extractSolids(const char *reducedName, const char *solidName, const double *volumeLimit,
                  const double *areaLimit, const double *holeLimit) {
  if (!reducedName || !solidName)
    return FT_FAIL(-1);
  // Read whole and closed before anything is written. An empty binary file is
  // refused here.
  int64_t status = 0;
  qvMesh *mesh = stlReadMesh(reducedName, &status);
  if (status < 0 || !mesh)
    return FT_FAIL(extractionFailed(mesh));

  int32_t count = 0;
  qvMesh *chain = selectShells(mesh, volumeLimit, areaLimit, holeLimit, &count);
  if (count < 0)
    return FT_FAIL(extractionFailed(chain));

  // Open shells passed the selection; only closed ones are solids.
  for (qvMesh *shell = chain, *next = nullptr; shell; shell = next) {
    next = shell->next; // read before the shell may be released
    if (!shell->topo)
      return FT_FAIL(extractionFailed(chain));
    if (shell->topo->nLoop != 0) {
      chain = qvMeshDropChained(chain, shell);
      --count;
    }
  }

  // A failed write deletes the solid file.
  if (stlWriteMeshChain(chain, kWriteAsStored, solidName) < 0)
    return FT_FAIL(extractionFailed(chain));
  qvMeshDeleteAll(chain);
  return count;
}
