// Command front end: the parsed command line, the file-name rules, the method
// entries, the run and its report.
//
// Invariants
//  1. ReduceOptions is filled by fillDefaultOptions, then written by
//     parseCommandLine alone, and read-only afterwards.
//  2. After parseCommandLine returns 0: inputName is not empty, outputName is
//     final, logName is set (empty only when -l gave it so), and solidName is set
//     whenever solidWanted is.
//  3. Names have no length limit. Every derived name is exactly the text that
//     snprintf would write with unlimited room.
//  4. method is 0 (low), 1 (medium) or 2 (high), in the options and in the
//     drivers alike.
//  5. Only the process entry (main) prints. Every routine here reports by its
//     result: 0 or a count for success, a negative number for failure.
//  6. The method entries return the triangles removed or -1. When the input is
//     refused at the scan, the old count is 0.
//  7. A report is written only after a fully successful run, and never onto the
//     file of the input, the output or the solid result.
//  8. The drivers hold at most one block's meshes at a time: each mesh is built,
//     assembled, reduced, written, flushed and released before the next exists.
//  9. After a successful run the output's header count equals its records. A
//     failed method leaves no output.
// 10. A failed run never changes the input, and a failed solid extraction
//     never changes the reduced file. A result that would replace one of them
//     (same device and inode) is written as a sibling that replaces it only
//     after success; the streamed route, which reads the input while it
//     writes, refuses an output over the input before it creates anything.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "stl/stl.h"

struct qvMesh;

// The parsed command line. The front end is the one place that holds owning
// strings, so no name has a length limit.
struct ReduceOptions {
  std::string inputName;  // the first argument, as given
  std::string outputName; // name of the reduced STL file
  std::string solidName;  // name of the solid STL file
  std::string logName;    // name of the run report
  double tolerance;       // the value of -t
  double angle;           // the value of -a; used only when angleGiven
  bool angleGiven;        // -a stood on the command line
  bool solidWanted;       // -s stood on the command line
  int32_t method;         // 0 low, 1 medium, 2 high
};

constexpr int32_t kMethodLow = 0;
constexpr int32_t kMethodMedium = 1;
constexpr int32_t kMethodHigh = 2;

// ---- Command line (options.cpp) ----------------------------------------------

// Empty names, tolerance 0.1, angle 30.0, both flags clear, method low.
void fillDefaultOptions(ReduceOptions *options);
// 0 go on, -1 syntax fault, -2 missing input, -3 bad method.
[[nodiscard]] int parseCommandLine(ReduceOptions *options, int argCount, const char *const *args);
// The stem (name less an exact ".stl" or ".STL") followed by "_RED.stl".
std::string provisionalOutputName(const std::string &inputName);
// "res_<tag>_<tolerance %.2lf>_<inputName>", tag LQ, MQ or HQ for the method.
std::string defaultOutputName(int32_t method, double tolerance, const std::string &inputName);
// outputName with its last three characters replaced by "log"; a name shorter
// than three characters gets ".log" appended instead.
std::string reportNameOf(const std::string &outputName);

// ---- Run (run.cpp) -------------------------------------------------------------

// The angle handed to the method: null when -a was not given, otherwise *copy,
// which is the given angle or -1.0 (feature step off) when its magnitude is
// below 1e-05.
const double *methodAngle(const ReduceOptions *options, double *copy);
// Runs the method and, with -s, the solid extraction. Always returns 0.
// removedCount < 0: the reduction failed. solidCount: -1 no extraction ran,
// -2 it failed, otherwise the solids written.
[[nodiscard]] int runReduction(const ReduceOptions *options, int32_t *oldCount, int32_t *removedCount,
                 int32_t *solidCount);

// ---- Method entries (drivers.cpp) ------------------------------------------------

// Each reads inputName, writes outputName and returns the triangles removed or -1.
// angle may be null (the engine's own default). oldCount: for the block methods
// the facets of the file (0 when refused at the scan), so facets that assembly
// drops count as removed; for reduceHigh the triangles after assembly, so those
// facets count in neither figure (not set when reading or assembly fails).
[[nodiscard]] int reduceLow(const char *inputName, const char *outputName, double tolerance,
              const double *angle, int32_t *oldCount);
[[nodiscard]] int reduceMedium(const char *inputName, const char *outputName, double tolerance,
                 const double *angle, int32_t *oldCount);
[[nodiscard]] int reduceHigh(const char *inputName, const char *outputName, double tolerance,
               const double *angle, int32_t *oldCount);

// Test hook, null in the product: when set, the block methods call it with the
// input name after the scan and before the load (or the key read, on the
// streamed route), so that a test can change or remove the file in the one
// window where a file read twice can change. Set it only from a test, before a
// run, and clear it afterwards.
extern void (*gAfterScanHook)(const char *inputName);

// ---- Reduction drivers (drivers.cpp) ---------------------------------------------
//
// method picks the engine entry that reduces a shell: kMethodLow
// reduceParallelLow (the quick pass on pieces), kMethodMedium
// reduceParallelMedium (one pass on pieces), kMethodHigh reduceOnePass (the
// whole shell, serial).

constexpr int kBlockFacetLimit = 100000000; // facets the block methods take
constexpr int kStreamedFrom = 10000000;     // facet count from which the streamed route runs

// The block routes, for a scanned count and box (box may be null: it is then
// computed from the facets). Both write byte-identical files for one input.
// Triangles removed (count minus records written), or -1 with no output left.
[[nodiscard]] int reduceInMemory(const char *input, const char *output, int method, const FacetBox *box,
                   double tolerance, const double *angle, int count);
[[nodiscard]] int reduceStreamed(const char *input, const char *output, int method, const FacetBox *box,
                   double tolerance, const double *angle, int count);
// Pointers to the facets of blocks ordered along the box's longest axis, or
// null (always for a count below 1). Free with free().
FacetRec **buildSortedFacets(FacetBlock *const *blocks, const FacetBox *box, int count);
// Reduces and writes every mesh of chain, which it consumes. Exactly one of file
// and name: a name makes it create, finish and close that file (deleted after a
// failure), a file is the caller's. oldCount receives the triangles of the meshes
// taken on. Old minus written, or -1.
[[nodiscard]] int reduceMeshChain(qvMesh *chain, FILE *file, const char *name, int format, int method,
                    double tolerance, const double *angle, int32_t *oldCount);
// Reduces one mesh, with null next, writes it to file (format kStlBinary, or
// text), releases it and flushes. oldCount: its triangles before. Triangles
// written, or -1.
[[nodiscard]] int reduceOneMesh(qvMesh *mesh, FILE *file, int format, int method, double tolerance,
                  const double *angle, int32_t *oldCount);

// ---- Run report (report.cpp) -------------------------------------------------------

// The report text of a successful run, line by line as the report file holds it.
std::string formatRunReport(const ReduceOptions *options, int32_t oldCount,
                            int32_t removedCount, int32_t solidCount, double elapsedSeconds);
// Writes the report to logName. 0 written, 1 skipped because logName is the same
// file as the input, output or solid file, -1 the file could not be written.
[[nodiscard]] int writeRunReport(const ReduceOptions *options, int32_t oldCount, int32_t removedCount,
                   int32_t solidCount, double elapsedSeconds);

// ---- Watching a run (progress.cpp) -------------------------------------------------

// Starts watching a run: the progress line on standard error when line is true
// and standard error is a terminal (shown after FT_PROGRESS_DELAY seconds, 2 by
// default), and the stage times when FT_TIMES=1 is in the environment. With
// neither, nothing is watched and no engine note goes anywhere.
void progressStart(bool line);
// Ends the watch: the line is erased, the stage times are printed on standard
// error, and the engine's notes go nowhere again.
void progressEnd();

// ---- Licence gate (licence.cpp) ------------------------------------------------------

// 1 when the run is licensed, 0 when it is refused.
[[nodiscard]] int licenceGranted();
