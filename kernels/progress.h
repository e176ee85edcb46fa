// Progress notes: how the long-running parts of a run (the engine's passes,
// the leaves of the parallel recursion) tell the front end how far they are.
// They call ftProgress; the front end installs the one sink that receives the
// notes for the time of a run, or none, and decides what to show.
//
// Contract
//  1. A note is cheap: with no sink installed it costs one atomic load. The
//     engine notes once when a pass starts and ends, and in its sweep at most
//     once per kProgressEvery vertices; the sink rate-limits any output by time.
//  2. Notes come from any thread, several at once (the pieces of a block are
//     reduced side by side): a sink must be safe for that.
//  3. Counts are increments: a pass adds its vertices to the total, a sweep
//     adds the vertices it has taken off its order since its last note.
//     Summed over the threads they describe the whole mesh.
//  4. A note never changes what it reports on: the result is the same with a
//     sink or without.
#pragma once

#include <cstdint>

// The kinds of note.
constexpr int32_t kProgressLeaf = 0;     // a leaf of the engine starts on a piece or shell
constexpr int32_t kProgressLeafEnd = 1;  // that leaf has ended
constexpr int32_t kProgressPass = 2;     // a pass starts; count: its vertices
constexpr int32_t kProgressSweep = 3;    // count: vertices the sweep took off its order since its last note
constexpr int32_t kProgressPassEnd = 4;  // the pass has ended

// A sweep notes at most once per this many vertices.
constexpr int32_t kProgressEvery = 4096;

// One note.
struct ftProgressNote {
  int32_t kind;   // kProgressLeaf ... kProgressPassEnd
  int64_t count;  // the increment the kind names, 0 for the others
};

// What receives the notes. Called on the thread that made the note.
typedef void (*ftProgressSink)(const ftProgressNote *note);

// Installs sink (null: none) for the notes to come. Call it only while no
// other thread makes notes: before a run and after it.
void ftProgressInstall(ftProgressSink sink);

// Hands a note to the installed sink, if any.
void ftProgress(int32_t kind, int64_t count);
