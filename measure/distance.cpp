// One-sided Hausdorff distance: the exact distance from a point to a triangle,
// a median-split box tree for nearest-triangle queries, and the dense sampling
// of a surface whose samples are measured on several threads.
//
// All of this is written apart from the reduction engine's own distance
// routines, so that measuring checks the engine instead of repeating it.
#include "measure/measure_internal.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

using namespace measure_detail;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// ---- Point to triangle --------------------------------------------------------

// Squared distance from p to the segment ab (a point when a equals b).
double pointSegment(const double p[3], const double a[3], const double b[3], double q[3]) {
  double ab[3];
  double ap[3];
  sub(b, a, ab);
  sub(p, a, ap);
  const double length2 = dot(ab, ab);
  double t = length2 > 0 ? dot(ap, ab) / length2 : 0;
  t = std::min(1.0, std::max(0.0, t));
  double d[3];
  for (int i = 0; i < 3; ++i) {
    q[i] = a[i] + t * ab[i];
    d[i] = p[i] - q[i];
  }
  return dot(d, d);
}

} // namespace

// The regions of a triangle's plane are told apart by the side of each edge on
// which p lies, measured against the normal n = ab x ac: when p is on the inner
// side of all three, its foot lies inside the face and the distance is the
// plane distance (ap . n)^2 / (n . n). Otherwise the closest point is on the
// boundary, in the region of an edge or a vertex, and the nearest of the three
// clamped segment projections gives it. n is formed by a cross product rather
// than from dot products (Lagrange's identity), which keeps it accurate for
// slivers; a triangle whose n is zero is a segment or a point and has no face.
double measurePointTriangle(const double p[3], const double a[3], const double b[3],
                            const double c[3], double closest[3]) {
  double ab[3];
  double ac[3];
  double n[3];
  sub(b, a, ab);
  sub(c, a, ac);
  cross(ab, ac, n);
  const double nn = dot(n, n);
  if (nn > 0) {
    const double *corners[3] = {a, b, c};
    bool inside = true;
    for (int k = 0; k < 3 && inside; ++k) {
      const double *from = corners[k];
      const double *to = corners[(k + 1) % 3];
      double side[3];
      double fp[3];
      double s[3];
      sub(to, from, side);
      sub(p, from, fp);
      cross(side, fp, s);
      inside = dot(s, n) >= 0;
    }
    if (inside) {
      double ap[3];
      sub(p, a, ap);
      const double t = dot(ap, n) / nn;
      if (closest) {
        for (int i = 0; i < 3; ++i) {
          closest[i] = p[i] - t * n[i];
        }
      }
      return t * t * nn;
    }
  }
  double q[3];
  double best[3];
  double d2 = pointSegment(p, a, b, best);
  const double d2bc = pointSegment(p, b, c, q);
  if (d2bc < d2) {
    d2 = d2bc;
    std::copy(q, q + 3, best);
  }
  const double d2ca = pointSegment(p, c, a, q);
  if (d2ca < d2) {
    d2 = d2ca;
    std::copy(q, q + 3, best);
  }
  if (closest) {
    std::copy(best, best + 3, closest);
  }
  return d2;
}

// ---- Box tree ---------------------------------------------------------------------
//
// Built top down: each node's triangles are split at the median of their
// centroids along the longest extent of the centroids, until a node holds at
// most kLeafSize. Median splits keep the depth at most ceil(log2(n)) + 1, which
// bounds the build and query stacks, and leave at least two triangles in every
// leaf but a lone root, so a tree has at most as many nodes as triangles.
// Children are stored side by side, left first.

namespace {

constexpr int kLeafSize = 4;     // most triangles in a leaf
static_assert(kLeafSize >= 3, "halves of a split of more than kLeafSize must hold two or more, "
                              "which bounds the nodes by the triangles");
constexpr int kStackDepth = 96;  // build and query stacks; a tree of 2^31 facets is 33 deep

// A node waiting to be split: its index and its range of `order`.
struct BuildTask {
  int32_t node;  // node to fill
  int32_t begin; // first entry of `order`
  int32_t end;   // one past the last entry
};

void boxOfRange(const MeasureMesh *mesh, const int32_t *order, int32_t begin, int32_t end,
                float box[6]) {
  for (int32_t s = begin; s < end; ++s) {
    const int32_t *t = mesh->tri + 3 * static_cast<int64_t>(order[s]);
    for (int k = 0; k < 3; ++k) {
      const float *v = mesh->xyz + 3 * static_cast<int64_t>(t[k]);
      for (int i = 0; i < 3; ++i) {
        if ((s == begin && k == 0) || v[i] < box[i]) {
          box[i] = v[i];
        }
        if ((s == begin && k == 0) || v[i] > box[3 + i]) {
          box[3 + i] = v[i];
        }
      }
    }
  }
}

// The axis of longest extent of the centroids in a range; ties go to the earlier axis.
int splitAxis(const double *centroid, const int32_t *order, int32_t begin, int32_t end) {
  double lo[3];
  double hi[3];
  for (int i = 0; i < 3; ++i) {
    lo[i] = hi[i] = centroid[3 * static_cast<int64_t>(order[begin]) + i];
  }
  for (int32_t s = begin + 1; s < end; ++s) {
    for (int i = 0; i < 3; ++i) {
      const double c = centroid[3 * static_cast<int64_t>(order[s]) + i];
      lo[i] = std::min(lo[i], c);
      hi[i] = std::max(hi[i], c);
    }
  }
  int axis = 0;
  for (int i = 1; i < 3; ++i) {
    if (hi[i] - lo[i] > hi[axis] - lo[axis]) {
      axis = i;
    }
  }
  return axis;
}

// Squared distance from p to a box; 0 inside.
double pointBox(const double p[3], const float box[6]) {
  double d2 = 0;
  for (int i = 0; i < 3; ++i) {
    const double below = box[i] - p[i];
    const double above = p[i] - box[3 + i];
    const double d = std::max(0.0, std::max(below, above));
    d2 += d * d;
  }
  return d2;
}

// Squared distance from p to the triangle in `slot`, or +infinity as soon as
// the triangle's plane alone is no nearer than `best`: no point of a triangle
// is nearer than its plane, and most triangles of a leaf fail on that test.
double pointSlot(const MeasureTree *tree, const double p[3], int32_t slot, double best) {
  const float *v = tree->corner + 9 * static_cast<int64_t>(slot);
  const double a[3] = {v[0], v[1], v[2]};
  const double b[3] = {v[3], v[4], v[5]};
  const double c[3] = {v[6], v[7], v[8]};
  double ab[3];
  double ac[3];
  double ap[3];
  double n[3];
  sub(b, a, ab);
  sub(c, a, ac);
  sub(p, a, ap);
  cross(ab, ac, n);
  const double height = dot(ap, n);
  if (height * height >= best * dot(n, n) && dot(n, n) > 0) {
    return kInfinity;
  }
  return measurePointTriangle(p, a, b, c, nullptr);
}

} // namespace

int measureTreeBuild(const MeasureMesh *mesh, MeasureTree *tree) {
  if (!tree) {
    return -4;
  }
  *tree = {};
  if (!mesh || (mesh->facetCount > 0 && (!mesh->tri || !mesh->xyz))) {
    return -4;
  }
  const int64_t facets = mesh->facetCount;
  if (facets == 0) {
    return 0;
  }
  int32_t *order = static_cast<int32_t *>(std::malloc(facets * sizeof(int32_t)));
  double *centroid = static_cast<double *>(std::malloc(3 * facets * sizeof(double)));
  BuildTask *task = static_cast<BuildTask *>(std::malloc(kStackDepth * sizeof(BuildTask)));
  tree->node = static_cast<MeasureNode *>(std::malloc(facets * sizeof(MeasureNode)));
  tree->corner = static_cast<float *>(std::malloc(9 * facets * sizeof(float)));
  if (!order || !centroid || !task || !tree->node || !tree->corner) {
    std::free(order);
    std::free(centroid);
    std::free(task);
    measureTreeFree(tree);
    return -3;
  }
  for (int64_t f = 0; f < facets; ++f) {
    order[f] = static_cast<int32_t>(f);
    for (int i = 0; i < 3; ++i) {
      double sum = 0;
      for (int k = 0; k < 3; ++k) {
        sum += mesh->xyz[3 * static_cast<int64_t>(mesh->tri[3 * f + k]) + i];
      }
      centroid[3 * f + i] = sum;
    }
  }
  tree->nodeCount = 1;
  int64_t tasks = 0;
  task[tasks++] = {0, 0, static_cast<int32_t>(facets)};
  while (tasks > 0) {
    const BuildTask t = task[--tasks];
    MeasureNode *node = tree->node + t.node;
    if (t.end - t.begin <= kLeafSize) {
      boxOfRange(mesh, order, t.begin, t.end, node->box);
      node->first = t.begin;
      node->count = t.end - t.begin;
      continue;
    }
    const int axis = splitAxis(centroid, order, t.begin, t.end);
    const int32_t mid = t.begin + (t.end - t.begin) / 2;
    std::nth_element(order + t.begin, order + mid, order + t.end, [&](int32_t x, int32_t y) {
      const double cx = centroid[3 * static_cast<int64_t>(x) + axis];
      const double cy = centroid[3 * static_cast<int64_t>(y) + axis];
      return cx < cy || (cx == cy && x < y);
    });
    node->first = tree->nodeCount;
    node->count = 0;
    tree->nodeCount += 2;
    task[tasks++] = {node->first + 1, mid, t.end};
    task[tasks++] = {node->first, t.begin, mid};
  }
  // Children follow their parent, so a backward pass sees them boxed first.
  for (int32_t i = tree->nodeCount - 1; i >= 0; --i) {
    MeasureNode *node = tree->node + i;
    if (node->count == 0) {
      const float *left = tree->node[node->first].box;
      const float *right = tree->node[node->first + 1].box;
      for (int k = 0; k < 3; ++k) {
        node->box[k] = std::min(left[k], right[k]);
        node->box[3 + k] = std::max(left[3 + k], right[3 + k]);
      }
    }
  }
  for (int64_t s = 0; s < facets; ++s) {
    for (int k = 0; k < 3; ++k) {
      const float *v = mesh->xyz + 3 * static_cast<int64_t>(mesh->tri[3 * order[s] + k]);
      std::copy(v, v + 3, tree->corner + 9 * s + 3 * k);
    }
  }
  tree->slotCount = static_cast<int32_t>(facets);
  std::free(order);
  std::free(centroid);
  std::free(task);
  return 0;
}

// Depth first, nearer child first, pruning every node whose box is no nearer
// than the best triangle so far. Box distances are lower bounds, so the minimum
// is that of a scan of every triangle; only where a triangle's rounded distance
// falls a few units in the last place below its box's could the hint change the
// last bits. The samplers reset the hint at the start of every chunk, so the
// hints, and with them every figure, do not depend on the thread count.
double measureTreeNearest(const MeasureTree *tree, const double p[3], int32_t *hint) {
  int32_t unused = -1;
  int32_t &bestSlot = hint ? *hint : unused;
  if (!tree || !tree->node || tree->slotCount == 0) {
    bestSlot = -1;
    return kInfinity;
  }
  double best = kInfinity;
  if (bestSlot >= 0 && bestSlot < tree->slotCount) {
    best = pointSlot(tree, p, bestSlot, kInfinity);
  } else {
    bestSlot = -1;
  }
  int32_t stackNode[kStackDepth];
  double stackDistance[kStackDepth];
  int depth = 0;
  stackNode[depth] = 0;
  stackDistance[depth++] = pointBox(p, tree->node[0].box);
  while (depth > 0) {
    --depth;
    if (stackDistance[depth] >= best) {
      continue;
    }
    const MeasureNode *node = tree->node + stackNode[depth];
    if (node->count > 0) {
      for (int32_t s = node->first; s < node->first + node->count; ++s) {
        const double d2 = pointSlot(tree, p, s, best);
        if (d2 < best) {
          best = d2;
          bestSlot = s;
        }
      }
      continue;
    }
    const int32_t left = node->first;
    const int32_t right = node->first + 1;
    const double dl = pointBox(p, tree->node[left].box);
    const double dr = pointBox(p, tree->node[right].box);
    const bool leftFirst = dl <= dr;
    const int32_t nearNode = leftFirst ? left : right;
    const int32_t farNode = leftFirst ? right : left;
    const double nearDistance = leftFirst ? dl : dr;
    const double farDistance = leftFirst ? dr : dl;
    if (farDistance < best) {
      stackNode[depth] = farNode;
      stackDistance[depth++] = farDistance;
    }
    if (nearDistance < best) {
      stackNode[depth] = nearNode;
      stackDistance[depth++] = nearDistance;
    }
  }
  return best;
}

void measureTreeFree(MeasureTree *tree) {
  if (!tree) {
    return;
  }
  std::free(tree->node);
  std::free(tree->corner);
  *tree = {};
}

// ---- Sampling -------------------------------------------------------------------------
//
// A surface is sampled at every vertex, inside every edge at n - 1 evenly spaced
// points with n = ceil(length / step), and inside every facet along rows parallel
// to its longest side: ceil(height / step) - 1 rows between that side and the
// opposite corner, each row sampled inside at its own ceil(length / step) - 1
// points. Points on a facet's sides are left to the edge samples, so nothing is
// taken twice, and no point of the surface is further than about a step from a
// sample. Since a distance to a fixed surface changes by at most the distance
// moved, the sampled maximum is short of the true one by at most that much.

namespace {

constexpr int64_t kVertexChunk = 8192; // vertices per chunk of work
constexpr int64_t kEdgeChunk = 2048;   // edges per chunk of work
constexpr int64_t kFacetChunk = 256;   // facets per chunk of work
constexpr double kStepGrowth = 1.0625; // least growth of the step per round when the cap bites
constexpr double kStepLeap = 1e6;      // growth of a step so small that the bound overflows

// Longest side of a facet as base (p0, p1) with the opposite corner p2.
struct FacetFrame {
  double p0[3];   // first end of the longest side
  double p1[3];   // second end of the longest side
  double p2[3];   // the opposite corner
  double length;  // length of the longest side
  double height;  // distance of p2 from the line of the longest side
};

void frameOf(const MeasureMesh *mesh, int64_t f, FacetFrame *frame) {
  double c[3][3];
  double length2[3];
  for (int k = 0; k < 3; ++k) {
    corner(mesh, f, k, c[k]);
  }
  for (int k = 0; k < 3; ++k) {
    double side[3];
    sub(c[(k + 1) % 3], c[k], side);
    length2[k] = dot(side, side);
  }
  int base = 0;
  for (int k = 1; k < 3; ++k) {
    if (length2[k] > length2[base]) {
      base = k;
    }
  }
  std::copy(c[base], c[base] + 3, frame->p0);
  std::copy(c[(base + 1) % 3], c[(base + 1) % 3] + 3, frame->p1);
  std::copy(c[(base + 2) % 3], c[(base + 2) % 3] + 3, frame->p2);
  double ab[3];
  double ac[3];
  double n[3];
  sub(frame->p1, frame->p0, ab);
  sub(frame->p2, frame->p0, ac);
  cross(ab, ac, n);
  frame->length = std::sqrt(length2[base]);
  frame->height = frame->length > 0 ? std::sqrt(dot(n, n)) / frame->length : 0;
}

double edgeLength(const MeasureMesh *mesh, int64_t e) {
  const float *a = mesh->xyz + 3 * static_cast<int64_t>(mesh->edge[2 * e]);
  const float *b = mesh->xyz + 3 * static_cast<int64_t>(mesh->edge[2 * e + 1]);
  double d[3];
  for (int i = 0; i < 3; ++i) {
    d[i] = static_cast<double>(b[i]) - a[i];
  }
  return std::sqrt(dot(d, d));
}

// An upper bound, in double so that it cannot overflow, of the samples that
// `step` gives, and the longest edge, beyond which a larger step changes nothing.
double sampleBound(const MeasureMesh *from, const MeasureSampling *sampling, double step,
                   double *longest) {
  double bound = static_cast<double>(from->vertexCount);
  *longest = 0;
  for (int64_t e = 0; e < from->edgeCount; ++e) {
    const double length = edgeLength(from, e);
    *longest = std::max(*longest, length);
    if (sampling->edgeSamples) {
      bound += std::ceil(length / step) - 1;
    }
  }
  if (sampling->faceSamples) {
    for (int64_t f = 0; f < from->facetCount; ++f) {
      FacetFrame frame;
      frameOf(from, f, &frame);
      const double rows = std::ceil(frame.height / step) - 1;
      if (rows > 0) {
        bound += rows * frame.length / (2 * step);
      }
    }
  }
  return bound;
}

// Partial result of one chunk of samples.
struct Partial {
  double max;    // largest distance; -1 before the first sample
  double at[3];  // the sample of `max`, the first one on ties
  double sum;    // sum of the distances
  double sum2;   // sum of the squared distances
  int64_t count; // samples taken
  int32_t hint;  // slot of the last nearest triangle, the next query's first guess
};

void take(const MeasureTree *to, const double q[3], Partial *part) {
  const double d2 = measureTreeNearest(to, q, &part->hint);
  const double d = std::sqrt(d2);
  if (d > part->max) {
    part->max = d;
    std::copy(q, q + 3, part->at);
  }
  part->sum += d;
  part->sum2 += d2;
  ++part->count;
}

void sampleVertices(const MeasureMesh *from, const MeasureTree *to, int64_t begin, int64_t end,
                    Partial *part) {
  for (int64_t v = begin; v < end; ++v) {
    const float *p = from->xyz + 3 * v;
    const double q[3] = {p[0], p[1], p[2]};
    take(to, q, part);
  }
}

void sampleEdges(const MeasureMesh *from, const MeasureTree *to, double step, int64_t begin,
                 int64_t end, Partial *part) {
  for (int64_t e = begin; e < end; ++e) {
    const float *a = from->xyz + 3 * static_cast<int64_t>(from->edge[2 * e]);
    const float *b = from->xyz + 3 * static_cast<int64_t>(from->edge[2 * e + 1]);
    const int64_t n = static_cast<int64_t>(std::ceil(edgeLength(from, e) / step));
    for (int64_t k = 1; k < n; ++k) {
      const double t = static_cast<double>(k) / static_cast<double>(n);
      double q[3];
      for (int i = 0; i < 3; ++i) {
        q[i] = a[i] + t * (static_cast<double>(b[i]) - a[i]);
      }
      take(to, q, part);
    }
  }
}

void sampleFacets(const MeasureMesh *from, const MeasureTree *to, double step, int64_t begin,
                  int64_t end, Partial *part) {
  for (int64_t f = begin; f < end; ++f) {
    FacetFrame fr;
    frameOf(from, f, &fr);
    const int64_t rows = static_cast<int64_t>(std::ceil(fr.height / step));
    for (int64_t j = 1; j < rows; ++j) {
      const double v = static_cast<double>(j) / static_cast<double>(rows);
      double start[3];
      double stop[3];
      for (int i = 0; i < 3; ++i) {
        start[i] = fr.p0[i] + v * (fr.p2[i] - fr.p0[i]);
        stop[i] = fr.p1[i] + v * (fr.p2[i] - fr.p1[i]);
      }
      const int64_t n = static_cast<int64_t>(std::ceil((1 - v) * fr.length / step));
      for (int64_t k = 1; k < n; ++k) {
        const double t = static_cast<double>(k) / static_cast<double>(n);
        double q[3];
        for (int i = 0; i < 3; ++i) {
          q[i] = start[i] + t * (stop[i] - start[i]);
        }
        take(to, q, part);
      }
    }
  }
}

int64_t chunksOf(int64_t items, int64_t size) {
  return (items + size - 1) / size;
}

} // namespace

int measureDistance(const MeasureMesh *from, const MeasureTree *to, const MeasureSampling *sampling,
                    int threads, MeasureDistance *out) {
  if (!out) {
    return -4;
  }
  *out = {};
  if (!from || !to || !sampling || !(sampling->step > 0) || !std::isfinite(sampling->step) ||
      sampling->cap < 0 || (from->facetCount > 0 && (!from->tri || !from->xyz)) ||
      (from->edgeCount > 0 && !from->edge) || (from->facetCount > 0 && !from->edge)) {
    return -4;
  }
  double step = sampling->step;
  double longest = 0;
  for (;;) {
    const double bound = sampleBound(from, sampling, step, &longest);
    if (bound <= static_cast<double>(sampling->cap) || step >= longest) {
      break;
    }
    out->capped = true;
    const double ratio = bound / static_cast<double>(sampling->cap);
    const double growth =
        std::isfinite(ratio) ? std::max(kStepGrowth, std::sqrt(ratio)) : kStepLeap;
    step = std::min(longest, step * growth);
  }
  out->step = step;
  if (!to->node || to->slotCount == 0) {
    out->max = out->mean = out->rms = kInfinity;
    return 0;
  }
  const int64_t vertexChunks = chunksOf(from->vertexCount, kVertexChunk);
  const int64_t edgeChunks = sampling->edgeSamples ? chunksOf(from->edgeCount, kEdgeChunk) : 0;
  const int64_t facetChunks = sampling->faceSamples ? chunksOf(from->facetCount, kFacetChunk) : 0;
  const int64_t chunks = vertexChunks + edgeChunks + facetChunks;
  Partial *part = static_cast<Partial *>(std::malloc((chunks + 1) * sizeof(Partial)));
  if (!part) {
    return -3;
  }
#pragma omp parallel for num_threads(threads > 0 ? threads : 1) schedule(dynamic, 1)
  for (int64_t c = 0; c < chunks; ++c) {
    Partial p = {-1, {0, 0, 0}, 0, 0, 0, -1};
    if (c < vertexChunks) {
      const int64_t begin = c * kVertexChunk;
      sampleVertices(from, to, begin, std::min(from->vertexCount, begin + kVertexChunk), &p);
    } else if (c < vertexChunks + edgeChunks) {
      const int64_t begin = (c - vertexChunks) * kEdgeChunk;
      sampleEdges(from, to, step, begin, std::min(from->edgeCount, begin + kEdgeChunk), &p);
    } else {
      const int64_t begin = (c - vertexChunks - edgeChunks) * kFacetChunk;
      sampleFacets(from, to, step, begin, std::min(from->facetCount, begin + kFacetChunk), &p);
    }
    part[c] = p;
  }
  double sum = 0;
  double sum2 = 0;
  for (int64_t c = 0; c < chunks; ++c) {
    if (part[c].count > 0 && (out->samples == 0 || part[c].max > out->max)) {
      out->max = part[c].max;
      std::copy(part[c].at, part[c].at + 3, out->at);
    }
    sum += part[c].sum;
    sum2 += part[c].sum2;
    out->samples += part[c].count;
  }
  std::free(part);
  if (out->samples > 0) {
    out->mean = sum / static_cast<double>(out->samples);
    out->rms = std::sqrt(sum2 / static_cast<double>(out->samples));
  }
  return 0;
}
