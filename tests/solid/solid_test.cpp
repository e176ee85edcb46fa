// Shell selection on reduced files written here, and -s as a user meets it
// through the built tool. Expected counts, areas and volumes are worked out by
// hand from boxes with dyadic sizes, so that areas sum exactly.
#include "solid/solid.h"
#include "solid/solid_internal.h"

#include "mesh/qvMesh.h"
#include "stl/stl_files.h"

#include <gtest/gtest.h>

#include <cmath>

namespace fs = std::filesystem;

namespace {

const double kUnlimited = -1.0; // in a case table: pass no limit at all

std::vector<Facet> operator+(std::vector<Facet> a, const std::vector<Facet> &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Bowl: area 6, the cap over its rim 4, volume 1 once capped. Cube: area 54, volume 27.
const std::vector<Facet> kBowl = boxFacets({0, 0, 0}, {2, 2, 0.25f}, true);
const std::vector<Facet> kCube = boxFacets({5, 0, 0}, {8, 3, 3});
const std::vector<Facet> kSpeck = boxFacets({10, 10, 10}, {10.01f, 10.01f, 10.01f}); // area 6e-4
const std::vector<Facet> kSlab = boxFacets({0, 0, 0}, {4, 4, 0.25f}); // area 36, volume 4
// The cube with one corner of one facet a float step (5e-7) away from the others.
const std::vector<Facet> kNudgedCube = [] {
  std::vector<Facet> facets = kCube;
  facets[0][0] = std::nextafter(facets[0][0], 100.0f);
  return facets;
}();

TEST(ExtractSolids, LimitsAreStrictCapsCloseAndOpenShellsGoAtTheEnd) {
  struct Case {
    const char *name;
    std::vector<Facet> shells;
    double area, hole, volume; // kUnlimited: no limits at all
    int solids, facets;
  };
  const Case cases[] = {
      {"area and cap exactly at their limits", kBowl + kCube, 6.0, 4.0, 0.5, 2, 12 + 10 + 4},
      {"no limits cap every hole", kBowl + kCube, kUnlimited, 0, 0, 2, 26},
      // The cube encloses 27, and its volume sums to exactly that.
      {"volume exactly at the limit", kBowl + kCube, 6.0, 4.0, 27.0, 1, 12},
      // Welded, the cube is closed; a gap would need a cap of some area.
      {"corners within the welding tolerance join", kNudgedCube, 0.0, 0.0, 0.0, 1, 12},
      {"hole above the limit", kBowl + kCube, 6.0, 3.5, 0.0, 1, 12},
      {"only open surfaces", kBowl + boxFacets({5, 0, 0}, {8, 3, 3}, true), 0.09, 0.09, 0.027, 0, 0},
      // Their shared edge runs over four segments: no slit is left to cap.
      {"two cubes on a long shared edge", readBinaryFacets(dataPath("two-cubes-edge.stl")), kUnlimited, 0, 0, 2, 384},
  };
  for (const Case &c : cases) {
    const std::string reduced = tempPath("reduced.stl"), solid = tempPath("solid.stl");
    writeBytes(reduced, binaryStl(c.shells));
    const bool limited = c.area != kUnlimited;
    EXPECT_EQ(extractSolids(reduced.c_str(), solid.c_str(), limited ? &c.volume : nullptr,
                            limited ? &c.area : nullptr, limited ? &c.hole : nullptr),
              c.solids)
        << c.name;
    EXPECT_EQ(fs::file_size(solid), 84u + 50u * c.facets) << c.name;
    EXPECT_EQ(countField(solid), c.facets) << c.name;
  }
}

TEST(SelectShells, OpenShellsPassWithNoVolumeTestAndAChainedMeshIsRefused) {
  const std::string name = tempPath("open.stl");
  writeBytes(name, binaryStl(kBowl + kCube));
  int64_t status = 0;
  int32_t count = 0;
  const double hole = 3.5, volume = 1.5;
  qvMesh *head = selectShells(stlReadMesh(name.c_str(), &status), &volume, nullptr, &hole, &count);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(head->topo->nLoop + head->next->topo->nLoop, 1);
  EXPECT_EQ(selectShells(head->next, nullptr, nullptr, nullptr, &count), head->next);
  EXPECT_EQ(count, -1);
  qvMeshDeleteAll(head);
}

// Runs the tool in dir; the exit status, with standard output in out.txt.
int runTool(const fs::path &dir, const std::string &args) {
  return runCommand("cd '" + dir.string() + "' && '" FT_BINARY_DIR "/FacetTrim' " + args + " > out.txt");
}

// The limits themselves are judged on extractSolids above; here the tool's
// own part: the -t-derived limits, the report line and the failures.
TEST(SolidTool, ReportCountsSolidsAndFailuresKeepTheReducedFile) {
  struct Case {
    std::vector<Facet> input;
    std::string args;  // behind "part.stl -oout.stl"
    int solids;        // -1: the run fails
  };
  const Case cases[] = {
      // Limits 0: nothing is too small, and only caps of no area are accepted.
      {kSpeck + kBowl, "-t0 -qh -ssolid.stl", 1},
      {kSlab + kSpeck, "-t1 -qh -ssolid.stl", 0},
      // Area limits 9, volume limit -27: the slab stays however thin.
      {kSlab + kSpeck, "-t-1 -qh -ssolid.stl", 1},
      // Every facet degenerate: the reduced file holds none.
      {{{1, 1, 1, 1, 1, 1, 1, 1, 1}}, "-qh -ssolid.stl", -1},
  };
  for (const Case &c : cases) {
    const fs::path dir = tempPath("run");
    fs::remove_all(dir);
    fs::create_directory(dir);
    writeBytes((dir / "part.stl").string(), binaryStl(c.input));
    const std::string where = c.args + ", " + std::to_string(c.input.size()) + " facets";
    EXPECT_EQ(runTool(dir, "part.stl -oout.stl " + c.args), c.solids < 0 ? 255 : 0) << where;
    EXPECT_TRUE(fs::exists(dir / "out.stl")) << where;
    if (c.solids < 0) {
      EXPECT_EQ(fileBytes(dir / "out.txt"), "ERROR: REDUCTION NOT POSSIBLE !\n") << where;
      continue;
    }
    const std::string line = "    number of solids:    " + std::to_string(c.solids) + " \n";
    EXPECT_NE(fileBytes(dir / "out.log").find(line), std::string::npos) << where;
  }
}

TEST(SolidTool, SolidFileReplacesTheReducedFileWhenTheNamesAreEqual) {
  const fs::path dir = tempPath("replace");
  fs::create_directory(dir);
  // The open bowl is in the reduced file but in no solid file.
  writeBytes((dir / "part.stl").string(),
             binaryStl(readBinaryFacets(dataPath("two-cubes-edge.stl")) +
                       boxFacets({100, 100, 0}, {102, 102, 0.25f}, true)));
  ASSERT_EQ(runTool(dir, "part.stl -t0.01 -qh -oapart.stl -ssolid.stl"), 0);
  ASSERT_EQ(runTool(dir, "part.stl -t0.01 -qh -s"), 0);
  const std::string solid = fileBytes(dir / "solid.stl");
  EXPECT_EQ(fileBytes(dir / "res_HQ_0.01_part.stl"), solid);
  EXPECT_NE(fileBytes(dir / "apart.stl"), solid);
  EXPECT_NE(fileBytes(dir / "res_HQ_0.01_part.log").find("number of solids:    2 \n"),
            std::string::npos);
}

} // namespace
