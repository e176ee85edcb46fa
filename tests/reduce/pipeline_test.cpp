// The leaves on real models, judged by FacetMeasure's library rather than by
// the engine's own routines: surviving vertices are input vertices bit for
// bit, the input lies within the tolerance of the output, closed shells stay
// closed, and a rerun writes the same bytes. Also the tolerances that run
// no pass, and the built tool.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "measure/judge.h"
#include "reduce/reduce_internal.h"
#include "stl/stl.h"
#include "support.h"

namespace {

const std::string kData = FT_TEST_DATA;
const std::string kBin = FT_BINARY_DIR;

typedef int32_t (*Leaf)(qvMesh*, double, const double*, int32_t*);

// Reads, assembles and reduces every shell of a model with leaf, and writes
// the result to out. The triangles removed, or -1.
long reduceFile(const std::string& in, const std::string& out, Leaf leaf, double tol) {
  int64_t status = 0;
  qvMesh* chain = stlReadMesh(in.c_str(), &status);
  if (!chain || qvMeshAssemble(chain, nullptr) < 0) {
    qvMeshDeleteAll(chain);
    return -1;
  }
  long sum = 0;
  for (qvMesh* m = chain; m && sum >= 0; m = m->next) {
    int32_t removed = -1;
    const int32_t r = leaf(m, tol, nullptr, &removed);
    sum = r < 0 ? -1 : sum + removed;
  }
  if (sum >= 0 && stlWriteMeshChain(chain, 0, out.c_str()) < 0) sum = -1;
  qvMeshDeleteAll(chain);
  return sum;
}

// Each model at 0.1 %, 0.5 % and 2 % of its diagonal, with both leaves; at
// 0.5 % a rerun must write the same bytes.
void checkGuarantees(const char* name) {
  const Original original(kData + "/" + name);
  ASSERT_GT(original.diagonal, 0.0) << name;
  const std::string out = tempPath(std::string("reduced-") + name);
  const struct {
    const char* name;
    Leaf leaf;
  } leaves[] = {{"one pass", reduceOnePass}, {"whole shell", reduceWhole}, {"quick", reduceQuick}};
  for (const auto& leaf : leaves)
    for (double percent : {0.1, 0.5, 2.0}) {
      const double tol = percent / 100.0 * original.diagonal;
      const std::string where = std::string(name) + " " + leaf.name + " " + std::to_string(percent) + "%";
      ASSERT_GE(reduceFile(kData + "/" + name, out, leaf.leaf, tol), 0) << where;
      expectKept(original, out, tol, where);
      if (percent == 0.5) {
        const std::string first = fileBytes(out);
        ASSERT_GE(reduceFile(kData + "/" + name, out, leaf.leaf, tol), 0);
        EXPECT_EQ(fileBytes(out), first) << where << ": a rerun wrote other bytes";
      }
    }
}

// A flat 6 x 6 grid of unit squares in z = 0, two facets each.
std::vector<Facet> flatGrid() {
  std::vector<Facet> grid;
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j) {
      const float x = float(i), y = float(j);
      grid.push_back({x, y, 0, x + 1, y, 0, x + 1, y + 1, 0});
      grid.push_back({x, y, 0, x + 1, y + 1, 0, x, y + 1, 0});
    }
  return grid;
}

}  // namespace

TEST(Leaves, NegativeOrNanRemovesNothingAndZeroOnlyWhatLeavesTheSurface) {
  for (Leaf leaf : {reduceOnePass, reduceWhole, reduceQuick})
    for (double tol : {-1.0, std::nan(""), 0.0})
      // Closed and curved: nothing at 0 either; open: the caps come and go.
      for (const char* name : {"torus.stl", "terrain.stl"}) {
        int64_t status = 0;
        qvMesh* m = stlReadMesh((kData + "/" + name).c_str(), &status);
        ASSERT_EQ(qvMeshAssemble(m, nullptr), 1);
        const int32_t before = qvTriCount(m->tri);
        int32_t removed = -1;
        EXPECT_EQ(leaf(m, tol, nullptr, &removed), 0) << name << " " << tol;
        EXPECT_EQ(qvTriCount(m->tri), before) << name << " " << tol;
        EXPECT_EQ(removed, 0) << name << " " << tol;
        qvMeshDeleteAll(m);
      }
}

TEST(Guarantees, ClosedModels) {
  for (const char* name : {"cube.stl", "torus.stl", "gearwheel.stl", "plate-hole.stl", "bunny.stl"})
    checkGuarantees(name);
}

TEST(Guarantees, OpenModels) {
  for (const char* name : {"terrain.stl", "flat-square.stl"}) checkGuarantees(name);
}

TEST(Tool, FlatFacesKeepOnlyTheirOutlines) {
  const std::string tool = kBin + "/FacetTrim ", out = tempPath("tool.stl");
  // The flat square, side 100, has four boundary corners: two triangles, at
  // a tolerance of 0 (exact coplanarity) as at any other.
  for (const char* t : {"0", "1e-4", "0.1", "100"}) {
    ASSERT_EQ(runCommand(tool + kData + "/flat-square.stl -o" + out + " -qh -t" + t), 0);
    EXPECT_EQ(readBinaryFacets(out).size(), 2u) << t;
  }
  // A flat 6 x 6 grid has 24 vertices on its open boundary: on a whole
  // shell, above 0, those between the corners slide along it; at 0 the
  // boundary stays as it is.
  const std::string in = tempPath("grid.stl");
  writeBytes(in, binaryStl(flatGrid()));
  ASSERT_EQ(runCommand(tool + in + " -o" + out + " -t0.5 -qh"), 0);
  EXPECT_EQ(readBinaryFacets(out).size(), 2u);
  ASSERT_EQ(runCommand(tool + in + " -o" + out + " -t0 -qh"), 0);
  EXPECT_EQ(readBinaryFacets(out).size(), 22u);
  // The plate, 20 x 20 x 0.5 with a hole of radius 1 through it, at 0.1 % of
  // its diagonal: every vertex left is a corner of the box or on the hole's
  // rim, none inside a flat face or along a straight outer edge.
  ASSERT_EQ(runCommand(tool + kData + "/plate-hole.stl -o" + out + " -qh -t0.0283"), 0);
  for (const Facet& f : readBinaryFacets(out))
    for (int c = 0; c < 9; c += 3) {
      const double x = f[c], y = f[c + 1];
      const bool corner = std::fabs(x) == 10.0 && std::fabs(y) == 10.0;
      EXPECT_TRUE(corner || std::fabs(std::hypot(x, y) - 1.0) < 1e-6) << x << " " << y << " " << f[c + 2];
    }
}

TEST(Tool, AModelScaledByAPowerOfTwoReducesToTheSameModelScaled) {
  // A curved scan, and flat faces, whose removals of deviation 0 are ordered
  // by the areas of their stars.
  const std::string tool = kBin + "/FacetTrim ", base = tempPath("base.stl"), big = tempPath("big.stl");
  for (const auto& [name, tol] : {std::pair<const char*, double>{"bunny.stl", 0.5}, {"plate-hole.stl", 0.1}}) {
    const auto facets = readBinaryFacets(kData + "/" + name);
    for (const float scale : {1024.0f, 1.0f / 1024.0f}) {
      auto grown = facets;
      for (Facet& f : grown)
        for (float& c : f) c *= scale;
      writeBytes(tempPath("scaled.stl"), binaryStl(grown));
      for (const char* method : {"-qh", "-qm"}) {
        char t[64], t0[64];
        std::snprintf(t, sizeof t, "%.17g", tol * scale);
        std::snprintf(t0, sizeof t0, "%.17g", tol);
        ASSERT_EQ(runCommand(tool + kData + "/" + name + " -o" + base + " -t" + t0 + " " + method), 0);
        ASSERT_EQ(runCommand(tool + tempPath("scaled.stl") + " -o" + big + " -t" + t + " " + method), 0);
        const auto want = readBinaryFacets(base);
        const auto got = readBinaryFacets(big);
        ASSERT_EQ(got.size(), want.size()) << name << " " << scale << " " << method;
        for (size_t i = 0; i < want.size(); ++i)
          for (int c = 0; c < 9; ++c) ASSERT_EQ(got[i][c], want[i][c] * scale) << name << " " << scale << " " << method;
      }
    }
  }
}

TEST(Tool, PiecesOfTheMediumMethodJoinWithinTheBoundAndClosed) {
  // -qm cuts each block into pieces, one per processor, whose seams are
  // frozen; no two pieces may draw the same chord between seam vertices.
  const std::string tool = kBin + "/FacetTrim ", out = tempPath("medium.stl");
  for (const char* name : {"sphere.stl", "bunny.stl", "gearwheel.stl"}) {
    const Original original(kData + "/" + name);
    for (const double percent : {0.5, 2.0}) {
      char t[64];
      std::snprintf(t, sizeof t, "%.17g", percent / 100.0 * original.diagonal);
      ASSERT_EQ(runCommand(tool + kData + "/" + name + " -o" + out + " -qm -t" + t), 0) << name;
      expectKept(original, out, std::atof(t), std::string(name) + " -qm " + t);
    }
  }
}

TEST(Tool, AGuestLyingOnItsHostGoesWithTheHostsPass) {
  // A facet on the flat grid, across the fan of (1, 1) to (2, 1) and (1, 2),
  // comes off the grid as a shell of its own that shares those three
  // vertices; another, on the grid's edge from (4, 4) to (5, 4), rises to
  // 0.2 above it. -qh takes both into the grid's pass: they lie within the
  // tolerance of the grid, so neither they nor the joints they held stay,
  // and the grid comes down to its two corner triangles.
  std::vector<Facet> soup = flatGrid();
  soup.push_back({1, 1, 0, 2, 1, 0, 1, 2, 0});
  soup.push_back({4, 4, 0, 5, 4, 0, 4.5f, 4.5f, 0.2f});
  const std::string in = tempPath("guest.stl"), out = tempPath("guest-out.stl");
  writeBytes(in, binaryStl(soup));
  const Original original(in);
  ASSERT_EQ(runCommand(kBin + "/FacetTrim " + in + " -o" + out + " -t0.5 -qh"), 0);
  int64_t first = 0;
  MeasureMesh mesh = {};
  ASSERT_GE(measureRead(out.c_str(), &mesh), 0);
  EXPECT_EQ(measureSubset(&original.mesh, &mesh, &first), 0);
  measureMeshFree(&mesh);
  EXPECT_EQ(certify(original, out, 0.5).verdict, kVerdictWithin);
  EXPECT_EQ(readBinaryFacets(out).size(), 2u);
}

TEST(Tool, SheetsTheInputJoinedStayJoined) {
  // A flat 6 x 6 grid with a flap standing on its edge p-q and a triangle
  // touching it only at r. Flat, the grid alone comes down to its two
  // corner triangles; p, q, r and the edge p-q must stay, so that the flap
  // and the lone triangle still meet the grid where the input had them.
  std::vector<Facet> soup = flatGrid();
  soup.push_back({3, 3, 0, 4, 3, 0, 3.5f, 3, 1});
  soup.push_back({2, 4, 0, 2, 4.5f, 1, 1.5f, 4, 1});
  const std::string in = tempPath("joined.stl"), out = tempPath("joined-out.stl");
  writeBytes(in, binaryStl(soup));
  const Original original(in);
  auto at = [](const Facet& f, float x, float y) {
    for (int c = 0; c < 9; c += 3)
      if (f[c] == x && f[c + 1] == y && f[c + 2] == 0) return true;
    return false;
  };
  for (const char* method : {"-qh", "-qm", "-ql"}) {
    ASSERT_EQ(runCommand(kBin + "/FacetTrim " + in + " -o" + out + " -t0.5 " + method), 0) << method;
    expectKept(original, out, 0.5, method);
    int edgePQ = 0, atR = 0;
    for (const Facet& f : readBinaryFacets(out)) {
      edgePQ += at(f, 3, 3) && at(f, 4, 3);
      atR += at(f, 2, 4);
    }
    EXPECT_EQ(edgePQ, 3) << method << ": the grid's two triangles and the flap on p-q";
    EXPECT_GE(atR, 2) << method << ": the grid and the lone triangle at r";
    // Two cubes of side 10 share an edge cut in four. Its inner vertices lie
    // on the straight line of the joint: each cube may let them go, and
    // comes down to its 12 triangles.
    ASSERT_EQ(runCommand(kBin + "/FacetTrim " + kData + "/two-cubes-edge.stl -o" + out + " -t0.1 " + method), 0);
    EXPECT_EQ(readBinaryFacets(out).size(), 24u) << method;
  }
}
