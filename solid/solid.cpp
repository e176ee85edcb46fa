// Shell selection and solid writing.
#include "solid/solid.h"

// Stand-in until shell selection exists: reads nothing, writes nothing, and
// reports no solids.
int extractSolids([[maybe_unused]] const char *reducedName,
                  [[maybe_unused]] const char *solidName,
                  [[maybe_unused]] const double *volumeLimit,
                  [[maybe_unused]] const double *areaLimit,
                  [[maybe_unused]] const double *holeLimit) {
  return 0;
}
