// Exact planar predicates, after Shewchuk's "Adaptive Precision Floating-Point
// Arithmetic and Fast Robust Geometric Predicates": the expansion arithmetic,
// orient2d and incircle with their filters and adaptive stages, then the
// planar turning tests that the mesh code calls.
//
// This file must be compiled with -ffp-contract=off and without fast-math
// (see kernels/CMakeLists.txt): every error-free transformation below relies
// on each product and sum being rounded exactly once to double.
#include "kernels/predicates.h"

#include <cfloat>
#include <cmath>
#include <initializer_list>

// Double arithmetic must be evaluated in double: with extended intermediate
// precision (x87) the rounding errors computed below would be wrong.
static_assert(FLT_EVAL_METHOD == 0, "the predicates need double evaluated as double");

namespace {

// ---------------------------------------------------------------------------
// Process-wide constants, written once by exactinit and read only afterwards.

double epsilon;         // largest power of 2 with 1 + epsilon == 1
double splitter;        // 2^ceil(p/2) + 1, splits a double into two halves
double resulterrbound;  // bound on the error of the final sum
double ccwerrboundA;    // orient2d filter
double ccwerrboundB;    // orient2d first adaptive stage
double ccwerrboundC;    // orient2d tail correction
double iccerrboundA;    // incircle filter
double iccerrboundB;    // incircle first adaptive stage
double iccerrboundC;    // incircle tail correction
double o3derrboundA;    // orient3d filter

constexpr double kThreshParallel = 1e-20;  // turn2d: squared sine at or below this is parallel

void computeConstants() {
  bool everyOther = true;
  double check = 1.0;
  double lastcheck;
  epsilon = 1.0;
  splitter = 1.0;
  // Halve epsilon until 1 + epsilon rounds to 1 (or stops changing, on a
  // machine that keeps extra precision); the splitter grows every other step.
  do {
    lastcheck = check;
    epsilon *= 0.5;
    if (everyOther) {
      splitter *= 2.0;
    }
    everyOther = !everyOther;
    check = 1.0 + epsilon;
  } while (check != 1.0 && check != lastcheck);
  splitter += 1.0;

  resulterrbound = (3.0 + 8.0 * epsilon) * epsilon;
  ccwerrboundA = (3.0 + 16.0 * epsilon) * epsilon;
  ccwerrboundB = (2.0 + 12.0 * epsilon) * epsilon;
  ccwerrboundC = (9.0 + 64.0 * epsilon) * epsilon * epsilon;
  iccerrboundA = (10.0 + 96.0 * epsilon) * epsilon;
  iccerrboundB = (4.0 + 48.0 * epsilon) * epsilon;
  iccerrboundC = (44.0 + 576.0 * epsilon) * epsilon * epsilon;
  o3derrboundA = (7.0 + 56.0 * epsilon) * epsilon;
}

// The one-time set-up. A function-local static is initialised exactly once
// even when several threads arrive together; later calls only read a flag.
void ensureInit() {
  static const bool ready = (computeConstants(), true);
  (void)ready;
}

// ---------------------------------------------------------------------------
// Error-free transformations. Each returns the rounded result in x and the
// rounding error in y, so that x + y is the exact value.

// |a| >= |b| (or a == 0) is required.
inline void fastTwoSum(double a, double b, double& x, double& y) {
  x = a + b;
  double bvirt = x - a;
  y = b - bvirt;
}

inline void twoSum(double a, double b, double& x, double& y) {
  x = a + b;
  double bvirt = x - a;
  double avirt = x - bvirt;
  double bround = b - bvirt;
  double around = a - avirt;
  y = around + bround;
}

// The error of x = a - b, computed beforehand.
inline double twoDiffTail(double a, double b, double x) {
  double bvirt = a - x;
  double avirt = x + bvirt;
  double bround = bvirt - b;
  double around = a - avirt;
  return around + bround;
}

inline void twoDiff(double a, double b, double& x, double& y) {
  x = a - b;
  y = twoDiffTail(a, b, x);
}

// Splits a into two non-overlapping halves of at most 26 bits each.
inline void split(double a, double& hi, double& lo) {
  double c = splitter * a;
  double abig = c - a;
  hi = c - abig;
  lo = a - hi;
}

// Product with b already split.
inline void twoProductPresplit(double a, double b, double bhi, double blo, double& x, double& y) {
  x = a * b;
  double ahi, alo;
  split(a, ahi, alo);
  double err1 = x - ahi * bhi;
  double err2 = err1 - alo * bhi;
  double err3 = err2 - ahi * blo;
  y = alo * blo - err3;
}

inline void twoProduct(double a, double b, double& x, double& y) {
  double bhi, blo;
  split(b, bhi, blo);
  twoProductPresplit(a, b, bhi, blo, x, y);
}

inline void square(double a, double& x, double& y) {
  x = a * a;
  double ahi, alo;
  split(a, ahi, alo);
  double err1 = x - ahi * ahi;
  double err3 = err1 - (ahi + ahi) * alo;
  y = alo * alo - err3;
}

// (a1 + a0) + b and (a1 + a0) - b as three-component expansions x2 x1 x0.
inline void twoOneSum(double a1, double a0, double b, double& x2, double& x1, double& x0) {
  double i;
  twoSum(a0, b, i, x0);
  twoSum(a1, i, x2, x1);
}

inline void twoOneDiff(double a1, double a0, double b, double& x2, double& x1, double& x0) {
  double i;
  twoDiff(a0, b, i, x0);
  twoSum(a1, i, x2, x1);
}

// (a1 + a0) + (b1 + b0) and (a1 + a0) - (b1 + b0) as four-component
// expansions, stored smallest first in x[0..3].
inline void twoTwoSum(double a1, double a0, double b1, double b0, double* x) {
  double j, k;
  twoOneSum(a1, a0, b0, j, k, x[0]);
  twoOneSum(j, k, b1, x[3], x[2], x[1]);
}

inline void twoTwoDiff(double a1, double a0, double b1, double b0, double* x) {
  double j, k;
  twoOneDiff(a1, a0, b0, j, k, x[0]);
  twoOneDiff(j, k, b1, x[3], x[2], x[1]);
}

// a*b - c*d exactly, as a four-component expansion.
inline void crossExpansion(double a, double b, double c, double d, double* x) {
  double p1, p0, q1, q0;
  twoProduct(a, b, p1, p0);
  twoProduct(c, d, q1, q0);
  twoTwoDiff(p1, p0, q1, q0, x);
}

// ---------------------------------------------------------------------------
// Expansion arithmetic. An expansion is a sum of non-overlapping doubles in
// increasing order of magnitude; the routines below drop zero components,
// and an expansion that is entirely zero is one component of value 0.

// Approximate value of an expansion.
double estimate(int elen, const double* e) {
  double q = e[0];
  for (int i = 1; i < elen; i++) {
    q += e[i];
  }
  return q;
}

// h = e + f. h must have room for elen + flen components and may not be e
// or f. The next component is always the smaller one in magnitude, which the
// paired comparison below decides without computing absolute values.
int fast_expansion_sum_zeroelim(int elen, const double* e, int flen, const double* f,
                                double* h) {
  int ei = 0;
  int fi = 0;
  double enow = e[0];
  double fnow = f[0];
  double q;
  if ((fnow > enow) == (fnow > -enow)) {
    q = enow;
    ei++;
  } else {
    q = fnow;
    fi++;
  }
  // Components are loaded only while the index is in range: reading one past
  // the end would touch memory outside the caller's array.
  if (ei < elen) enow = e[ei];
  if (fi < flen) fnow = f[fi];
  int hi = 0;
  double qnew, hh;
  if (ei < elen && fi < flen) {
    if ((fnow > enow) == (fnow > -enow)) {
      fastTwoSum(enow, q, qnew, hh);
      if (++ei < elen) enow = e[ei];
    } else {
      fastTwoSum(fnow, q, qnew, hh);
      if (++fi < flen) fnow = f[fi];
    }
    q = qnew;
    if (hh != 0.0) h[hi++] = hh;
    while (ei < elen && fi < flen) {
      if ((fnow > enow) == (fnow > -enow)) {
        twoSum(q, enow, qnew, hh);
        if (++ei < elen) enow = e[ei];
      } else {
        twoSum(q, fnow, qnew, hh);
        if (++fi < flen) fnow = f[fi];
      }
      q = qnew;
      if (hh != 0.0) h[hi++] = hh;
    }
  }
  while (ei < elen) {
    twoSum(q, enow, qnew, hh);
    if (++ei < elen) enow = e[ei];
    q = qnew;
    if (hh != 0.0) h[hi++] = hh;
  }
  while (fi < flen) {
    twoSum(q, fnow, qnew, hh);
    if (++fi < flen) fnow = f[fi];
    q = qnew;
    if (hh != 0.0) h[hi++] = hh;
  }
  if (q != 0.0 || hi == 0) h[hi++] = q;
  return hi;
}

// h = b * e. h must have room for 2 * elen components and may not be e.
int scale_expansion_zeroelim(int elen, const double* e, double b, double* h) {
  double bhi, blo;
  split(b, bhi, blo);
  double q, hh;
  twoProductPresplit(e[0], b, bhi, blo, q, hh);
  int hi = 0;
  if (hh != 0.0) h[hi++] = hh;
  for (int i = 1; i < elen; i++) {
    double p1, p0, sum;
    twoProductPresplit(e[i], b, bhi, blo, p1, p0);
    twoSum(q, p0, sum, hh);
    if (hh != 0.0) h[hi++] = hh;
    fastTwoSum(p1, sum, q, hh);
    if (hh != 0.0) h[hi++] = hh;
  }
  if (q != 0.0 || hi == 0) h[hi++] = q;
  return hi;
}

// ---------------------------------------------------------------------------
// orient2d

double orient2dadapt(const double* pa, const double* pb, const double* pc, double detsum) {
  double acx = pa[0] - pc[0];
  double bcx = pb[0] - pc[0];
  double acy = pa[1] - pc[1];
  double bcy = pb[1] - pc[1];

  // Stage B: the determinant of the rounded differences, exactly.
  double b[4];
  crossExpansion(acx, bcy, acy, bcx, b);
  double det = estimate(4, b);
  double errbound = ccwerrboundB * detsum;
  if (det >= errbound || -det >= errbound) {
    return det;
  }

  double acxtail = twoDiffTail(pa[0], pc[0], acx);
  double bcxtail = twoDiffTail(pb[0], pc[0], bcx);
  double acytail = twoDiffTail(pa[1], pc[1], acy);
  double bcytail = twoDiffTail(pb[1], pc[1], bcy);
  if (acxtail == 0.0 && acytail == 0.0 && bcxtail == 0.0 && bcytail == 0.0) {
    return det;
  }

  // Stage C: first-order correction for the rounding of the differences.
  errbound = ccwerrboundC * detsum + resulterrbound * std::fabs(det);
  det += (acx * bcytail + bcy * acxtail) - (acy * bcxtail + bcx * acytail);
  if (det >= errbound || -det >= errbound) {
    return det;
  }

  // Stage D: the exact sum of every term.
  double u[4], c1[8], c2[12], d[16];
  crossExpansion(acxtail, bcy, acytail, bcx, u);
  int c1len = fast_expansion_sum_zeroelim(4, b, 4, u, c1);
  crossExpansion(acx, bcytail, acy, bcxtail, u);
  int c2len = fast_expansion_sum_zeroelim(c1len, c1, 4, u, c2);
  crossExpansion(acxtail, bcytail, acytail, bcxtail, u);
  int dlen = fast_expansion_sum_zeroelim(c2len, c2, 4, u, d);
  return d[dlen - 1];
}

// ---------------------------------------------------------------------------
// incircle

// Space of the running sum of the exact incircle stage, as in the paper.
constexpr int kIncircleFinSize = 1152;

// The running sum: two buffers that take turns as source and destination.
struct FinSum {
  double* now;    // current sum
  double* other;  // scratch for the next sum
  int len;        // components of now
};

void finAdd(FinSum& fin, int elen, const double* e) {
  fin.len = fast_expansion_sum_zeroelim(fin.len, fin.now, elen, e, fin.other);
  double* swap = fin.now;
  fin.now = fin.other;
  fin.other = swap;
}

// One corner of the incircle determinant, taken relative to d.
struct Corner {
  double dx, dy;          // difference to d, rounded
  double dxtail, dytail;  // rounding errors of dx and dy
  double lift[4];         // dx^2 + dy^2, exactly
  double cross[4];        // exact 2x2 determinant of the other two corners
  double xt[8];           // cross scaled by dxtail
  int xtlen;              // components of xt
  double yt[8];           // cross scaled by dytail
  int ytlen;              // components of yt
};

// Exact lift times cross for one corner: the main term of stage B.
int cornerTerm(const Corner& k, double* out) {
  double xcross[8], xxcross[16], ycross[8], yycross[16];
  int xlen = scale_expansion_zeroelim(4, k.cross, k.dx, xcross);
  int xxlen = scale_expansion_zeroelim(xlen, xcross, k.dx, xxcross);
  int ylen = scale_expansion_zeroelim(4, k.cross, k.dy, ycross);
  int yylen = scale_expansion_zeroelim(ylen, ycross, k.dy, yycross);
  return fast_expansion_sum_zeroelim(xxlen, xxcross, yylen, yycross, out);
}

// tail * (cross * 2d + sq1 * m1 + sq2 * m2): the terms linear in one tail.
// The scaled cross (xt or yt of the corner) is kept for the second stage.
void firstOrderTail(FinSum& fin, const double* cross, double tail, double twoD, const double* sq1,
                    double m1, const double* sq2, double m2, double* scaled, int& scaledLen) {
  double t8[8], t16a[16], t16b[16], t16c[16], t32[32], t48[48];
  scaledLen = scale_expansion_zeroelim(4, cross, tail, scaled);
  int alen = scale_expansion_zeroelim(scaledLen, scaled, twoD, t16a);
  int t8len = scale_expansion_zeroelim(4, sq1, tail, t8);
  int blen = scale_expansion_zeroelim(t8len, t8, m1, t16b);
  t8len = scale_expansion_zeroelim(4, sq2, tail, t8);
  int clen = scale_expansion_zeroelim(t8len, t8, m2, t16c);
  int len32 = fast_expansion_sum_zeroelim(alen, t16a, blen, t16b, t32);
  int len48 = fast_expansion_sum_zeroelim(clen, t16c, len32, t32, t48);
  finAdd(fin, len48, t48);
}

// The cross terms of the other two corners' tails: ct holds the part linear
// in their tails, ctt the part quadratic in them.
void crossTails(const Corner& next, const Corner& prev, double* ct, int& ctlen, double* ctt,
                int& cttlen) {
  if (next.dxtail == 0.0 && next.dytail == 0.0 && prev.dxtail == 0.0 && prev.dytail == 0.0) {
    ct[0] = 0.0;
    ctlen = 1;
    ctt[0] = 0.0;
    cttlen = 1;
    return;
  }
  double i1, i0, j1, j0, u[4], v[4];
  twoProduct(next.dxtail, prev.dy, i1, i0);
  twoProduct(next.dx, prev.dytail, j1, j0);
  twoTwoSum(i1, i0, j1, j0, u);
  twoProduct(prev.dxtail, -next.dy, i1, i0);
  twoProduct(prev.dx, -next.dytail, j1, j0);
  twoTwoSum(i1, i0, j1, j0, v);
  ctlen = fast_expansion_sum_zeroelim(4, u, 4, v, ct);
  crossExpansion(next.dxtail, prev.dytail, prev.dxtail, next.dytail, ctt);
  cttlen = 4;
}

// The terms of one tail that are quadratic in the tails: scaled (the
// corner's cross times the tail, from the first stage) times the tail, plus
// ct times the tail times twice the coordinate. sct receives ct times the
// tail for secondOrderRest.
void secondOrderHead(FinSum& fin, const double* scaled, int scaledLen, double tail, double twoD,
                     const double* ct, int ctlen, double* sct, int& sctlen) {
  double t16a[16], t32a[32], t48[48];
  int alen = scale_expansion_zeroelim(scaledLen, scaled, tail, t16a);
  sctlen = scale_expansion_zeroelim(ctlen, ct, tail, sct);
  int len32a = scale_expansion_zeroelim(sctlen, sct, twoD, t32a);
  int len48 = fast_expansion_sum_zeroelim(alen, t16a, len32a, t32a, t48);
  finAdd(fin, len48, t48);
}

// The terms of one tail that are cubic and quartic in the tails: sct times
// the tail, plus ctt times the tail, scaled once by twice the coordinate and
// once by the tail again.
void secondOrderRest(FinSum& fin, const double* sct, int sctlen, double tail, double twoD,
                     const double* ctt, int cttlen) {
  double t16a[16], t16b[16], t32a[32], t32b[32], t64[64], sctt[8];
  int len32a = scale_expansion_zeroelim(sctlen, sct, tail, t32a);
  int scttlen = scale_expansion_zeroelim(cttlen, ctt, tail, sctt);
  int alen = scale_expansion_zeroelim(scttlen, sctt, twoD, t16a);
  int blen = scale_expansion_zeroelim(scttlen, sctt, tail, t16b);
  int len32b = fast_expansion_sum_zeroelim(alen, t16a, blen, t16b, t32b);
  int len64 = fast_expansion_sum_zeroelim(len32a, t32a, len32b, t32b, t64);
  finAdd(fin, len64, t64);
}

// sq * tail1 * tail2, added to the running sum.
void tailTailTerm(FinSum& fin, const double* sq, double tail1, double tail2) {
  double t8[8], t16[16];
  int len8 = scale_expansion_zeroelim(4, sq, tail1, t8);
  int len16 = scale_expansion_zeroelim(len8, t8, tail2, t16);
  finAdd(fin, len16, t16);
}

double incircleadapt(const double* pa, const double* pb, const double* pc, const double* pd,
                     double permanent) {
  Corner a, b, c;
  a.dx = pa[0] - pd[0];
  b.dx = pb[0] - pd[0];
  c.dx = pc[0] - pd[0];
  a.dy = pa[1] - pd[1];
  b.dy = pb[1] - pd[1];
  c.dy = pc[1] - pd[1];

  // Stage B: the determinant of the rounded differences, exactly.
  crossExpansion(b.dx, c.dy, c.dx, b.dy, a.cross);
  crossExpansion(c.dx, a.dy, a.dx, c.dy, b.cross);
  crossExpansion(a.dx, b.dy, b.dx, a.dy, c.cross);
  double adet[32], bdet[32], cdet[32], abdet[64];
  int alen = cornerTerm(a, adet);
  int blen = cornerTerm(b, bdet);
  int clen = cornerTerm(c, cdet);
  int ablen = fast_expansion_sum_zeroelim(alen, adet, blen, bdet, abdet);

  double fin1[kIncircleFinSize], fin2[kIncircleFinSize];
  FinSum fin = {fin1, fin2, 0};
  fin.len = fast_expansion_sum_zeroelim(ablen, abdet, clen, cdet, fin1);

  double det = estimate(fin.len, fin.now);
  double errbound = iccerrboundB * permanent;
  if (det >= errbound || -det >= errbound) {
    return det;
  }

  a.dxtail = twoDiffTail(pa[0], pd[0], a.dx);
  a.dytail = twoDiffTail(pa[1], pd[1], a.dy);
  b.dxtail = twoDiffTail(pb[0], pd[0], b.dx);
  b.dytail = twoDiffTail(pb[1], pd[1], b.dy);
  c.dxtail = twoDiffTail(pc[0], pd[0], c.dx);
  c.dytail = twoDiffTail(pc[1], pd[1], c.dy);
  if (a.dxtail == 0.0 && b.dxtail == 0.0 && c.dxtail == 0.0 && a.dytail == 0.0 &&
      b.dytail == 0.0 && c.dytail == 0.0) {
    return det;
  }

  // Stage C: first-order correction for the rounding of the differences.
  const double adx = a.dx, ady = a.dy, bdx = b.dx, bdy = b.dy, cdx = c.dx, cdy = c.dy;
  const double adxtail = a.dxtail, adytail = a.dytail, bdxtail = b.dxtail;
  const double bdytail = b.dytail, cdxtail = c.dxtail, cdytail = c.dytail;
  errbound = iccerrboundC * permanent + resulterrbound * std::fabs(det);
  det += ((adx * adx + ady * ady) *
              ((bdx * cdytail + cdy * bdxtail) - (bdy * cdxtail + cdx * bdytail)) +
          2.0 * (adx * adxtail + ady * adytail) * (bdx * cdy - bdy * cdx)) +
         ((bdx * bdx + bdy * bdy) *
              ((cdx * adytail + ady * cdxtail) - (cdy * adxtail + adx * cdytail)) +
          2.0 * (bdx * bdxtail + bdy * bdytail) * (cdx * ady - cdy * adx)) +
         ((cdx * cdx + cdy * cdy) *
              ((adx * bdytail + bdy * adxtail) - (ady * bdxtail + bdx * adytail)) +
          2.0 * (cdx * cdxtail + cdy * cdytail) * (adx * bdy - ady * bdx));
  if (det >= errbound || -det >= errbound) {
    return det;
  }

  // Stage D: every remaining term exactly. The lifts are needed only where a
  // tail of another corner is non-zero; computing all three is harmless.
  Corner* corners[3] = {&a, &b, &c};
  for (Corner* k : corners) {
    double x1, x0, y1, y0;
    square(k->dx, x1, x0);
    square(k->dy, y1, y0);
    twoTwoSum(x1, x0, y1, y0, k->lift);
    k->xtlen = 0;
    k->ytlen = 0;
  }

  // Terms linear in one tail, corner by corner, x before y.
  for (int i = 0; i < 3; i++) {
    Corner& k = *corners[i];
    const Corner& next = *corners[(i + 1) % 3];
    const Corner& prev = *corners[(i + 2) % 3];
    if (k.dxtail != 0.0) {
      firstOrderTail(fin, k.cross, k.dxtail, 2.0 * k.dx, prev.lift, next.dy, next.lift, -prev.dy,
                     k.xt, k.xtlen);
    }
    if (k.dytail != 0.0) {
      firstOrderTail(fin, k.cross, k.dytail, 2.0 * k.dy, next.lift, prev.dx, prev.lift, -next.dx,
                     k.yt, k.ytlen);
    }
  }

  // Terms of higher order in the tails.
  for (int i = 0; i < 3; i++) {
    const Corner& k = *corners[i];
    const Corner& next = *corners[(i + 1) % 3];
    const Corner& prev = *corners[(i + 2) % 3];
    if (k.dxtail == 0.0 && k.dytail == 0.0) {
      continue;
    }
    double ct[8], ctt[4];
    int ctlen, cttlen;
    crossTails(next, prev, ct, ctlen, ctt, cttlen);
    double sct[16];
    int sctlen;
    if (k.dxtail != 0.0) {
      secondOrderHead(fin, k.xt, k.xtlen, k.dxtail, 2.0 * k.dx, ct, ctlen, sct, sctlen);
      if (next.dytail != 0.0) {
        tailTailTerm(fin, prev.lift, k.dxtail, next.dytail);
      }
      if (prev.dytail != 0.0) {
        tailTailTerm(fin, next.lift, -k.dxtail, prev.dytail);
      }
      secondOrderRest(fin, sct, sctlen, k.dxtail, 2.0 * k.dx, ctt, cttlen);
    }
    if (k.dytail != 0.0) {
      secondOrderHead(fin, k.yt, k.ytlen, k.dytail, 2.0 * k.dy, ct, ctlen, sct, sctlen);
      secondOrderRest(fin, sct, sctlen, k.dytail, 2.0 * k.dy, ctt, cttlen);
    }
  }
  return fin.now[fin.len - 1];
}

// ---------------------------------------------------------------------------
// Planar turning tests

// Fills a difference vector q - p with its squared length unless given.
void fillDiff(const double* p, const double* q, bool given, double* out) {
  if (given) {
    return;
  }
  out[0] = q[0] - p[0];
  out[1] = q[1] - p[1];
  out[2] = out[0] * out[0] + out[1] * out[1];
}

// The collinear classes: behind a, between a and b, or beyond b.
int32_t collinearClass(const double* ab, const double* ac) {
  if (ab[0] * ac[0] + ab[1] * ac[1] < 0.0) {
    return kTurnBehind;
  }
  return ac[2] > ab[2] ? kTurnBeyond : kTurnBetween;
}

// Cross test of u against v (three doubles each): -1, 0 or 1.
int32_t crossTest(const double* u, const double* v, qvTurn* res) {
  res->det = u[0] * v[1] - u[1] * v[0];
  res->det2 = res->det * res->det;
  if (res->det2 == 0.0) {
    res->det = 0.0;
    res->sin2 = 0.0;
    return 0;
  }
  res->sin2 = res->det2 / (u[2] * v[2]);
  if (res->sin2 <= kThreshParallel) {
    return 0;
  }
  return res->det < 0.0 ? -1 : 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

void exactinit() {
  ensureInit();
}

double orient2d(const double* pa, const double* pb, const double* pc) {
  double detleft = (pa[0] - pc[0]) * (pb[1] - pc[1]);
  double detright = (pa[1] - pc[1]) * (pb[0] - pc[0]);
  double det = detleft - detright;
  double detsum;
  if (detleft > 0.0) {
    if (detright <= 0.0) {
      return det;
    }
    detsum = detleft + detright;
  } else if (detleft < 0.0) {
    if (detright >= 0.0) {
      return det;
    }
    detsum = -detleft - detright;
  } else {
    return det;
  }
  double errbound = ccwerrboundA * detsum;
  if (det >= errbound || -det >= errbound) {
    return det;
  }
  return orient2dadapt(pa, pb, pc, detsum);
}

double incircle(const double* pa, const double* pb, const double* pc, const double* pd) {
  double adx = pa[0] - pd[0];
  double bdx = pb[0] - pd[0];
  double cdx = pc[0] - pd[0];
  double ady = pa[1] - pd[1];
  double bdy = pb[1] - pd[1];
  double cdy = pc[1] - pd[1];

  double bdxcdy = bdx * cdy;
  double cdxbdy = cdx * bdy;
  double alift = adx * adx + ady * ady;
  double cdxady = cdx * ady;
  double adxcdy = adx * cdy;
  double blift = bdx * bdx + bdy * bdy;
  double adxbdy = adx * bdy;
  double bdxady = bdx * ady;
  double clift = cdx * cdx + cdy * cdy;

  double det = alift * (bdxcdy - cdxbdy) + blift * (cdxady - adxcdy) + clift * (adxbdy - bdxady);
  double permanent = (std::fabs(bdxcdy) + std::fabs(cdxbdy)) * alift +
                     (std::fabs(cdxady) + std::fabs(adxcdy)) * blift +
                     (std::fabs(adxbdy) + std::fabs(bdxady)) * clift;
  double errbound = iccerrboundA * permanent;
  // Strict comparisons here, as published; the filter of orient2d uses >=.
  if (det > errbound || -det > errbound) {
    return det;
  }
  return incircleadapt(pa, pb, pc, pd, permanent);
}

int32_t incircleSign(const double* a, const double* b, const double* c, const double* d) {
  ensureInit();
  double det = incircle(a, b, c, d);
  if (det > 0.0) {
    return 2;
  }
  return det < 0.0 ? -2 : 0;
}

int32_t orient2dClass(const double* a, const double* b, const double* c, int32_t given,
                      double* ab, double* ac, qvTurn* res) {
  ensureInit();
  fillDiff(a, b, (given & kTurnGivenAb) != 0, ab);
  fillDiff(a, c, (given & kTurnGivenAc) != 0, ac);
  res->det = orient2d(a, b, c);
  res->det2 = res->det * res->det;
  // Relative to ab alone: |ab|^4, not |ab|^2 |ac|^2.
  res->sin2 = res->det2 == 0.0 ? 0.0 : res->det2 / (ab[2] * ab[2]);
  if (res->det < 0.0) {
    return kTurnRight;
  }
  if (res->det > 0.0) {
    return kTurnLeft;
  }
  return collinearClass(ab, ac);
}

int32_t turn2d(const double* a, const double* b, const double* c, int32_t given, double* ab,
               double* ac, qvTurn* res) {
  fillDiff(a, b, (given & kTurnGivenAb) != 0, ab);
  fillDiff(a, c, (given & kTurnGivenAc) != 0, ac);
  int32_t r = crossTest(ab, ac, res);
  if (r != 0) {
    return 2 * r;
  }
  // Too flat at a to tell. The turn at c, then the one at b, can be sharper
  // (when c lies close to b, say); if all three are flat the corners count
  // as collinear.
  double bc[3];
  fillDiff(b, c, false, bc);
  qvTurn scratch;
  r = crossTest(ac, bc, &scratch);
  if (r != 0) {
    return 2 * r;
  }
  bc[0] = -bc[0];
  bc[1] = -bc[1];
  r = crossTest(bc, ab, &scratch);
  if (r != 0) {
    return 2 * r;
  }
  return collinearClass(ab, ac);
}

int32_t turn2dFast(const double* a, const double* b, const double* c, int32_t given, double* ab,
                   double* ac) {
  if ((given & kTurnGivenAb) == 0) {
    ab[0] = b[0] - a[0];
    ab[1] = b[1] - a[1];
  }
  if ((given & kTurnGivenAc) == 0) {
    ac[0] = c[0] - a[0];
    ac[1] = c[1] - a[1];
  }
  double det = ab[0] * ac[1] - ac[0] * ab[1];
  if (det < 0.0) {
    return kTurnRight;
  }
  if (det > 0.0) {
    return kTurnLeft;
  }
  // Behind a when either coordinate points backwards; this tests the
  // components one by one, not the dot product.
  if (ac[0] * ab[0] < 0.0 || ab[1] * ac[1] < 0.0) {
    return kTurnBehind;
  }
  return ac[0] * ac[0] + ac[1] * ac[1] > ab[0] * ab[0] + ab[1] * ab[1] ? kTurnBeyond
                                                                       : kTurnBetween;
}

// ---------------------------------------------------------------------------
// orient3d: a floating-point filter, then, when the differences to the last
// point are exact (as they are between nearby float coordinates), the one
// triple product of the differences as an expansion; only otherwise the four
// triple products of the points themselves. Exactly coplanar points, the
// common case of the flat tests, end in the second stage.

namespace {

// p . (q x r) as an expansion of at most 24 components; h needs 24.
int tripleExpansion(const double* p, const double* q, const double* r, double* h) {
  double m[3][4];
  crossExpansion(q[1], r[2], q[2], r[1], m[0]);
  crossExpansion(q[2], r[0], q[0], r[2], m[1]);
  crossExpansion(q[0], r[1], q[1], r[0], m[2]);
  double s[3][8];
  int sl[3];
  for (int k = 0; k < 3; ++k) sl[k] = scale_expansion_zeroelim(4, m[k], p[k], s[k]);
  double t[16];
  const int tl = fast_expansion_sum_zeroelim(sl[0], s[0], sl[1], s[1], t);
  return fast_expansion_sum_zeroelim(tl, t, sl[2], s[2], h);
}

int32_t signOf(const double* e, int n) {
  const double top = e[n - 1];
  return top > 0.0 ? 1 : (top < 0.0 ? -1 : 0);
}

}  // namespace

int32_t orient3dSign(const double* pa, const double* pb, const double* pc, const double* pd) {
  ensureInit();
  // Four points with one coordinate in common lie in a plane of that axis.
  for (int k = 0; k < 3; ++k)
    if (pa[k] == pd[k] && pb[k] == pd[k] && pc[k] == pd[k]) return 0;
  // The determinant of the rows (p, 1) equals (a - d) . ((b - d) x (c - d)).
  double ad[3], bd[3], cd[3];
  bool exact = true;
  for (int k = 0; k < 3; ++k) {
    ad[k] = pa[k] - pd[k];
    bd[k] = pb[k] - pd[k];
    cd[k] = pc[k] - pd[k];
    exact = exact && twoDiffTail(pa[k], pd[k], ad[k]) == 0.0 && twoDiffTail(pb[k], pd[k], bd[k]) == 0.0 &&
            twoDiffTail(pc[k], pd[k], cd[k]) == 0.0;
  }
  const double bc = bd[1] * cd[2] - bd[2] * cd[1];
  const double ca = cd[1] * ad[2] - cd[2] * ad[1];
  const double ab = ad[1] * bd[2] - ad[2] * bd[1];
  const double det = ad[0] * bc + bd[0] * ca + cd[0] * ab;
  const double permanent = (std::fabs(bd[1] * cd[2]) + std::fabs(bd[2] * cd[1])) * std::fabs(ad[0]) +
                           (std::fabs(cd[1] * ad[2]) + std::fabs(cd[2] * ad[1])) * std::fabs(bd[0]) +
                           (std::fabs(ad[1] * bd[2]) + std::fabs(ad[2] * bd[1])) * std::fabs(cd[0]);
  // Strict, so that an infinite or undefined estimate goes on to the exact stages.
  const double errbound = o3derrboundA * permanent;
  if (det > errbound) return 1;
  if (-det > errbound) return -1;
  double h[24];
  if (exact) {
    const int n = tripleExpansion(ad, bd, cd, h);
    return signOf(h, n);
  }
  // [abc] - [abd] + [acd] - [bcd], each triple product of the points themselves.
  double t[4][24];
  int tl[4];
  tl[0] = tripleExpansion(pa, pb, pc, t[0]);
  tl[1] = tripleExpansion(pa, pb, pd, t[1]);
  tl[2] = tripleExpansion(pa, pc, pd, t[2]);
  tl[3] = tripleExpansion(pb, pc, pd, t[3]);
  for (int k : {1, 3})
    for (int i = 0; i < tl[k]; ++i) t[k][i] = -t[k][i];
  double u[48];
  double w[48];
  double all[96];
  const int ul = fast_expansion_sum_zeroelim(tl[0], t[0], tl[1], t[1], u);
  const int wl = fast_expansion_sum_zeroelim(tl[2], t[2], tl[3], t[3], w);
  const int n = fast_expansion_sum_zeroelim(ul, u, wl, w, all);
  return signOf(all, n);
}
