// Helpers shared by the files of front/ and used nowhere else.
#pragma once

#include <cstdint>
#include <string>

// The text snprintf would write for format and its arguments, of any length.
// An encoding error gives an empty text.
std::string formatText(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Two names are one file when both exist with the same device and inode, which
// sees through "./", links and other spellings; names of which one does not
// exist are compared as text.
[[nodiscard]] bool sameFile(const std::string &a, const std::string &b);

// The file a route creates for a result named name. Normally name itself; when
// name is an existing file that a failure must leave as it was (the input, or
// the reduced file under a solid file of the same name), a new sibling in the
// same folder with that file's permissions, which replaces it only after
// success (settleOutput). Writing over it directly would leave it emptied or
// cut after a failed or interrupted write.
struct OutputTarget {
  std::string name; // the file the route creates
  bool sibling;     // name is a temporary sibling of the result
};

// Fills target for name; keep asks for a sibling when name exists. False when
// a sibling is needed and can't be made.
[[nodiscard]] bool planOutput(const std::string &name, bool keep, OutputTarget *target);
// A sibling replaces name after success (result >= 0) and is removed after a
// failure. The result, or -1 when the replacement fails.
[[nodiscard]] int settleOutput(const OutputTarget &target, const std::string &name, int result);

// The stages of a run that the progress line names and the stage times time.
constexpr int kStageScan = 0;     // counting the facets and taking the box
constexpr int kStageRead = 1;     // loading the facets or their keys, or the whole mesh
constexpr int kStageSort = 2;     // ordering the facets along the longest axis
constexpr int kStageFetch = 3;    // a block's facets into a mesh
constexpr int kStageAssembly = 4; // welding and linking a mesh
constexpr int kStageReduce = 5;   // the engine
constexpr int kStageWrite = 6;    // writing reduced triangles
constexpr int kStageSolid = 7;    // the solid extraction
constexpr int kStageCount = 8;

// The units of progress: the blocks of a block method, the shells of -qh.
constexpr int kUnitBlock = 1;
constexpr int kUnitShell = 2;

// The run enters stage. Called on the main thread only.
void progressStage(int stage);
// The run starts unit (from 0) of units, of the given kind, holding facets of
// the run's allFacets. Called on the main thread, between engine calls.
void progressUnit(int kind, int unit, int units, int64_t facets, int64_t allFacets);
