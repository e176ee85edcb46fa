// The report of FacetMeasure, as text lines for people and as one JSON object
// for scripts. Doubles are written with 17 significant digits and floats with
// 9, so every figure reads back bitwise; an infinite distance is "inf" in text
// and null in JSON.
#include "measure/measure.h"

#include <cinttypes>
#include <cmath>

namespace {

// ---- Text -------------------------------------------------------------------

void textCount(FILE *file, const char *label, int64_t original, int64_t reduced) {
  std::fprintf(file, "%-22s %20" PRId64 " %20" PRId64 "\n", label, original, reduced);
}

void textReal(FILE *file, const char *label, double original, double reduced) {
  std::fprintf(file, "%-22s %20.9g %20.9g\n", label, original, reduced);
}

void textBox(FILE *file, const char *label, const MeasureTopo *original, const MeasureTopo *reduced,
             int offset) {
  const float *o = original->box + offset;
  const float *r = reduced->box + offset;
  std::fprintf(file, "%-22s %.9g %.9g %.9g  |  %.9g %.9g %.9g\n", label, o[0], o[1], o[2], r[0],
               r[1], r[2]);
}

void textBound(FILE *file, const char *label, const MeasureBound *b) {
  std::fprintf(file,
               "%-22s lower %.9g, upper %.9g (allowance %.3g, %" PRId64 " pieces, depth %d%s)\n",
               label, b->lower, b->upper, b->allowance, b->pieces, b->depth,
               b->limited ? ", stopped by a limit" : "");
}

void textDistance(FILE *file, const char *label, const MeasureDistance *d) {
  std::fprintf(file, "%-22s max %.9g", label, d->max);
  if (d->samples > 0 && std::isfinite(d->max)) {
    std::fprintf(file, " at (%.9g, %.9g, %.9g)", d->at[0], d->at[1], d->at[2]);
  }
  std::fprintf(file, ", mean %.9g, rms %.9g, %" PRId64 " samples, step %.9g%s\n", d->mean,
               d->rms, d->samples, d->step, d->capped ? " (grown to fit the sample cap)" : "");
}

// ---- JSON -------------------------------------------------------------------------

void jsonString(FILE *file, const char *text) {
  std::fputc('"', file);
  for (const char *c = text ? text : ""; *c; ++c) {
    const unsigned char u = static_cast<unsigned char>(*c);
    if (u == '"' || u == '\\') {
      std::fprintf(file, "\\%c", u);
    } else if (u < 0x20) {
      std::fprintf(file, "\\u%04x", u);
    } else {
      std::fputc(u, file);
    }
  }
  std::fputc('"', file);
}

void jsonReal(FILE *file, double value) {
  if (std::isfinite(value)) {
    std::fprintf(file, "%.17g", value);
  } else {
    std::fprintf(file, "null");
  }
}

void jsonPoint(FILE *file, const double p[3]) {
  std::fprintf(file, "[%.17g,%.17g,%.17g]", p[0], p[1], p[2]);
}

void jsonFloatPoint(FILE *file, const float p[3]) {
  std::fprintf(file, "[%.9g,%.9g,%.9g]", p[0], p[1], p[2]);
}

void jsonTopo(FILE *file, const char *key, const char *name, const MeasureTopo *t) {
  std::fprintf(file, "\"%s\":{\"file\":", key);
  jsonString(file, name);
  std::fprintf(file,
               ",\"facets\":%" PRId64 ",\"vertices\":%" PRId64 ",\"edges\":%" PRId64
               ",\"shells\":%" PRId64 ",\"closed_shells\":%" PRId64 ",\"boundary_edges\":%" PRId64
               ",\"nonmanifold_edges\":%" PRId64 ",\"degenerate_facets\":%" PRId64 ",\"area\":",
               t->facets, t->vertices, t->edges, t->shells, t->closedShells, t->boundaryEdges,
               t->nonManifoldEdges, t->degenerateFacets);
  jsonReal(file, t->area);
  std::fprintf(file, ",\"volume\":");
  jsonReal(file, t->volume);
  std::fprintf(file, ",\"box\":");
  if (t->vertices > 0) {
    std::fprintf(file, "[");
    jsonFloatPoint(file, t->box);
    std::fprintf(file, ",");
    jsonFloatPoint(file, t->box + 3);
    std::fprintf(file, "]");
  } else {
    std::fprintf(file, "null");
  }
  std::fprintf(file, "}");
}

void jsonDistance(FILE *file, const char *key, const MeasureDistance *d) {
  std::fprintf(file, "\"%s\":{\"max\":", key);
  jsonReal(file, d->max);
  std::fprintf(file, ",\"mean\":");
  jsonReal(file, d->mean);
  std::fprintf(file, ",\"rms\":");
  jsonReal(file, d->rms);
  std::fprintf(file, ",\"at\":");
  if (d->samples > 0 && std::isfinite(d->max)) {
    jsonPoint(file, d->at);
  } else {
    std::fprintf(file, "null");
  }
  std::fprintf(file, ",\"samples\":%" PRId64 ",\"step\":", d->samples);
  jsonReal(file, d->step);
  std::fprintf(file, ",\"capped\":%s", d->capped ? "true" : "false");
}

void jsonBound(FILE *file, const MeasureBound *b) {
  std::fprintf(file, ",\"lower\":");
  jsonReal(file, b->lower);
  std::fprintf(file, ",\"upper\":");
  jsonReal(file, b->upper);
  std::fprintf(file, ",\"allowance\":");
  jsonReal(file, b->allowance);
  std::fprintf(file, ",\"pieces\":%" PRId64 ",\"depth\":%d,\"limited\":%s", b->pieces, b->depth,
               b->limited ? "true" : "false");
}

const char *verdictName(int32_t verdict) {
  switch (verdict) {
  case kVerdictWithin:
    return "within";
  case kVerdictBeyond:
    return "beyond";
  default:
    return "undecided";
  }
}

} // namespace

// A subset violation fails whatever the bounds say; an infinite distance (an
// empty reduced surface) has an infinite lower bound and fails any tolerance.
int measureStatus(const MeasureReport *report) {
  if (!report || !report->decide) {
    return 0;
  }
  if (report->subsetViolations != 0 || report->bound.verdict == kVerdictBeyond) {
    return 1;
  }
  return report->bound.verdict == kVerdictWithin ? 0 : 3;
}

void measureWriteText(FILE *file, const MeasureReport *r) {
  if (!file || !r) {
    return;
  }
  std::fprintf(file, "%-22s %20s %20s\n", "", "original", "reduced");
  textCount(file, "facets", r->original.facets, r->reduced.facets);
  textCount(file, "vertices", r->original.vertices, r->reduced.vertices);
  textCount(file, "edges", r->original.edges, r->reduced.edges);
  textCount(file, "shells", r->original.shells, r->reduced.shells);
  textCount(file, "closed shells", r->original.closedShells, r->reduced.closedShells);
  textCount(file, "boundary edges", r->original.boundaryEdges, r->reduced.boundaryEdges);
  textCount(file, "non-manifold edges", r->original.nonManifoldEdges, r->reduced.nonManifoldEdges);
  textCount(file, "degenerate facets", r->original.degenerateFacets, r->reduced.degenerateFacets);
  textReal(file, "area", r->original.area, r->reduced.area);
  textReal(file, "volume", r->original.volume, r->reduced.volume);
  textBox(file, "box minimum", &r->original, &r->reduced, 0);
  textBox(file, "box maximum", &r->original, &r->reduced, 3);
  std::fprintf(file, "%-22s %" PRId64 " reduced vertices are not original vertices",
               "vertex subset", r->subsetViolations);
  if (r->subsetViolations > 0) {
    std::fprintf(file, ", the first (%.9g, %.9g, %.9g)", r->subsetFirst[0], r->subsetFirst[1],
                 r->subsetFirst[2]);
  }
  std::fprintf(file, "\n");
  textDistance(file, "original -> reduced", &r->originalToReduced);
  textBound(file, "  certified", &r->bound);
  textDistance(file, "reduced -> original", &r->reducedToOriginal);
  if (r->decide) {
    const int status = measureStatus(r);
    std::fprintf(file, "%-22s %.9g: %s\n", "tolerance", r->tolerance,
                 status == 0 ? "passed" : status == 1 ? "FAILED" : "UNDECIDED");
  }
}

void measureWriteJson(FILE *file, const MeasureReport *r) {
  if (!file || !r) {
    return;
  }
  std::fprintf(file, "{");
  jsonTopo(file, "original", r->originalName, &r->original);
  std::fprintf(file, ",");
  jsonTopo(file, "reduced", r->reducedName, &r->reduced);
  std::fprintf(file, ",\"subset_violations\":%" PRId64 ",\"subset_first\":", r->subsetViolations);
  if (r->subsetViolations > 0) {
    jsonFloatPoint(file, r->subsetFirst);
  } else {
    std::fprintf(file, "null");
  }
  std::fprintf(file, ",");
  jsonDistance(file, "original_to_reduced", &r->originalToReduced);
  jsonBound(file, &r->bound);
  std::fprintf(file, "},");
  jsonDistance(file, "reduced_to_original", &r->reducedToOriginal);
  std::fprintf(file, "},\"tolerance\":");
  if (r->decide) {
    const int status = measureStatus(r);
    jsonReal(file, r->tolerance);
    std::fprintf(file, ",\"verdict\":\"%s\",\"pass\":%s}\n", verdictName(r->bound.verdict),
                 status == 0 ? "true" : status == 1 ? "false" : "null");
  } else {
    std::fprintf(file, "null,\"verdict\":null,\"pass\":null}\n");
  }
}
