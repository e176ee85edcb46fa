// The reduction drivers: how much of the model is in memory at once, in which
// order it reaches the engine, and how the pieces come together in the output.
//
// The block methods (reduceLow, reduceMedium) scan the file, order its facets
// along the longest axis of the box and take them in runs of kFacetBlockSize,
// each welded and reduced by itself and never joined to its neighbours. Below
// kStreamedFrom facets every facet is held in memory; from there on only a key
// per facet, and each run is fetched from the file when its turn comes. On
// both routes the next run is fetched and assembled on a thread of its own
// while the one before it is reduced and written; on the in-memory route that
// thread also makes the first cut of the run's first shell.
// reduceHigh reads the whole file's facets, assembles them into one chain of
// shells and reduces it shell by shell.
//
// Read order: the output file, the walk over a mesh chain, the block loop, the
// two block routes, then the three method entries.
#include "front/front.h"
#include "kernels/alloc.h"
#include "kernels/failure.h"
#include "kernels/progress.h"
#include "front/front_internal.h"

#include "mesh/qvMesh.h"
#include "parallel/parallel.h"
#include "reduce/reduce.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <vector>

#include <pthread.h>
#include <signal.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

// ---- One mesh and a chain of meshes ---------------------------------------------

namespace {

// Reduces the shell in shell->first, or, with shell->second set, the halves
// of its first cut (reduceParallelFirstCut) for the block methods; writes it,
// releases both and flushes. As reduceOneMesh.
int reduceShell(qvMeshPair *shell, FILE *file, int format, int method, double tolerance,
                const double *angle, int32_t *oldCount, qvGuests *guests = nullptr) {
  int32_t unused;
  int32_t &old = oldCount ? *oldCount : unused;
  old = 0;
  const bool cut = shell->second != nullptr;
  if (!shell->first || !file || (cut && method != kMethodLow && method != kMethodMedium)) {
    qvMeshDeleteAll(shell->first);
    qvMeshDeleteAll(shell->second);
    if (file) {
      std::fflush(file);
    }
    return FT_FAIL(-1);
  }
  for (const qvMesh *half : {shell->first, shell->second}) {
    for (const qvMesh *piece = half; piece; piece = piece->next) {
      old += qvTriCount(piece->tri);
    }
  }
  progressStage(kStageReduce);
  // Only the sign of the engine's result counts: the number removed is taken
  // from the triangles written.
  int32_t engine;
  switch (method) {
  case kMethodLow:
    engine = cut ? reduceParallelLowCut(shell, tolerance, angle)
                 : reduceParallelLow(shell->first, tolerance, angle);
    break;
  case kMethodMedium:
    engine = cut ? reduceParallelMediumCut(shell, tolerance, angle)
                 : reduceParallelMedium(shell->first, tolerance, angle);
    break;
  default:
    // The whole shell is the leaf; the parallel entries note their own.
    ftProgress(kProgressLeaf, 0);
    engine = reduceWholeWith(shell->first, tolerance, angle, guests, nullptr);
    ftProgress(kProgressLeafEnd, 0);
    break;
  }
  qvMesh *mesh = shell->first;
  shell->first = nullptr;
  if (engine < 0) {
    qvMeshFree(mesh);
    std::fflush(file);
    return FT_FAIL(-1);
  }
  progressStage(kStageWrite);
  const int written = format == kStlBinary ? stlWriteMeshBinary(mesh, 0, file)
                                           : stlWriteMeshAscii(mesh, 0, file);
  qvMeshFree(mesh);
  // Finished output reaches the disk before the next mesh is built; a flush
  // that fails is a failed write.
  if (std::fflush(file) != 0) {
    return FT_FAIL(-1);
  }
  return written;
}

} // namespace

int reduceOneMesh(qvMesh *mesh, FILE *file, int format, int method, double tolerance,
                  const double *angle, int32_t *oldCount) {
  qvMeshPair shell = {mesh, nullptr};
  return reduceShell(&shell, file, format, method, tolerance, angle, oldCount);
}

int reduceMeshChain(qvMesh *chain, FILE *file, const char *name, int format, int method,
                    double tolerance, const double *angle, int32_t *oldCount) {
  int32_t unused;
  int32_t &old = oldCount ? *oldCount : unused;
  old = 0;
  FILE *output = file;
  if (!file && name) {
    output = format == kStlBinary ? stlCreateBinary(name, 0) : stlCreateAscii(name);
  }
  if (!output || (file && name)) {
    qvMeshDeleteAll(chain);
    return FT_FAIL(-1);
  }
  int64_t oldSum = 0;
  int64_t writtenSum = 0;
  bool done = true;
  // A chain written to a file of its own is a whole model: its shells are the
  // run's units of progress. A block's chain is part of a unit.
  int shells = 0;
  int64_t facets = 0;
  if (name) {
    for (const qvMesh *mesh = chain; mesh; mesh = mesh->next, ++shells) {
      facets += qvTriCount(mesh->tri);
    }
  }
  // On the high method a small shell that lies on a larger one (a guest) is
  // reduced with it, whose pass may answer for it: it is then not written.
  // The guests it can't take are reduced right after it, as shells of their
  // own. Everything a host's guests need is found before any shell goes.
  std::vector<qvMesh *> list;
  while (chain) {
    list.push_back(chain);
    chain = qvMeshUnchain(chain, chain);
  }
  const int32_t n = static_cast<int32_t>(list.size());
  std::vector<int32_t> host(list.size(), -1);
  std::vector<double *> shared(list.size(), nullptr);
  std::vector<int32_t> nShared(list.size(), 0);
  if (method == kMethodHigh && n > 1) {
    done = qvGuestsFind(list.data(), n, host.data(), shared.data(), nShared.data()) >= 0;
  }
  int shell = 0;
  auto reduceAndWrite = [&](qvMesh *mesh, qvGuests *guests) {
    if (name) {
      progressUnit(kUnitShell, shell++, shells, qvTriCount(mesh->tri), facets);
    }
    int32_t meshOld = 0;
    qvMeshPair pair = {mesh, nullptr};
    const int written = reduceShell(&pair, output, format, method, tolerance, angle, &meshOld, guests);
    oldSum += meshOld;
    done = written >= 0;
    writtenSum += done ? written : 0;
  };
  // Each host's guests, in chain order.
  std::vector<std::vector<int32_t>> guestsAt(list.size());
  for (int32_t g = 0; g < n; ++g) {
    if (host[g] >= 0) {
      guestsAt[host[g]].push_back(g);
    }
  }
  std::vector<qvMesh *> guestsOf;
  std::vector<uint8_t> taken;
  for (int32_t i = 0; i < n && done; ++i) {
    if (host[i] >= 0) {
      continue;
    }
    const std::vector<int32_t> &guestAt = guestsAt[i];
    guestsOf.clear();
    for (const int32_t g : guestAt) {
      guestsOf.push_back(list[g]);
    }
    taken.assign(guestsOf.size(), 0);
    qvGuests guests = {guestsOf.data(), taken.data(), static_cast<int32_t>(guestsOf.size()), shared[i],
                       nShared[i]};
    qvMesh *mesh = list[i];
    list[i] = nullptr;
    reduceAndWrite(mesh, guestsOf.empty() ? nullptr : &guests);
    // A guest taken counts as input that was removed.
    for (size_t k = 0; k < guestAt.size() && done; ++k) {
      qvMesh *guest = list[guestAt[k]];
      list[guestAt[k]] = nullptr;
      if (taken[k]) {
        oldSum += qvTriCount(guest->tri);
        qvMeshFree(guest);
      } else {
        reduceAndWrite(guest, nullptr);
      }
    }
  }
  for (size_t i = 0; i < list.size(); ++i) {
    qvMeshDeleteAll(list[i]);
    std::free(shared[i]);
  }
  if (name) {
    if (done) {
      done = format == kStlBinary
                 ? stlPatchCount(static_cast<uint32_t>(writtenSum), output) == 0
                 : std::fputs("endsolid\n", output) >= 0;
    }
    // A failure leaves no file, as on the block routes.
    done = stlCloseOutput(output, name, done ? kOutputCheck : kOutputDiscard) == 0;
  }
  old = static_cast<int32_t>(oldSum);
  return done ? static_cast<int>(oldSum - writtenSum) : -1;
}

namespace {

// ---- Facets of a run ---------------------------------------------------------------

// Where the block loop finds its facets: the sorted pointer table (in-memory
// route), or the sorted keys and the input opened again (streamed route).
struct FacetSource {
  FacetRec *const *table; // sorted pointers, or null
  const FacetKey *keys;   // sorted keys, when table is null
  FILE *input;            // the open input, for keys
  int format;             // the input's format, for keys
};

// The run assembled into a chain of shells; shells as assembleFromPointers.
// The streamed route fetches the run's facets first. With stages set, the
// run's stages are noted; a producer thread sets none.
qvMesh *assembleRun(const FacetSource &source, int start, int size, int *shells, bool stages) {
  *shells = -1;
  if (source.table) {
    if (stages) {
      progressStage(kStageAssembly);
    }
    return assembleFromPointers(source.table + start, size, shells);
  }
  if (stages) {
    progressStage(kStageFetch);
  }
  FacetRec *facets = fetchFacetRun(source.input, source.format, source.keys + start, size);
  auto **table = static_cast<FacetRec **>(ftMalloc(sizeof(FacetRec *) * static_cast<size_t>(size)));
  qvMesh *mesh = nullptr;
  if (facets && table) {
    for (int i = 0; i < size; ++i) {
      table[i] = &facets[i];
    }
    if (stages) {
      progressStage(kStageAssembly);
    }
    mesh = assembleFromPointers(table, size, shells);
  }
  std::free(table);
  std::free(facets);
  return mesh;
}

// The next run of the block loop, read and assembled on a thread of its own
// while the main thread reduces and writes the run before it. On the
// in-memory route, and unless the main thread is already waiting for it, the
// thread also makes the first cut of the run's first shell, which the
// reduction would otherwise make at its start; the cut is the same whoever
// makes it, so only the time depends on which thread does. The streamed
// route leaves it to the reduction: its thread reads the file as well, and
// on a 14,000,000-facet field the cut made there cost 2 to 3 % more time.
// The meshes are the same whenever the thread runs: it owns the input file
// and its own records until it is joined, and touches nothing else the main
// thread does.
struct NextRun {
  const FacetSource *source;
  int start;
  int size;
  qvMesh *mesh;    // the chain made, or null; without its first shell when first is set
  qvMeshPair first; // the first shell, or the halves of its first cut; both null when not taken
  int shells;      // as assembleRun; -1 as well when the first cut failed
  pthread_t thread;
  bool running;    // the thread was started and is not joined yet
  std::atomic<bool> awaited; // the main thread waits for the run
};

void *assembleNextRun(void *argument) {
  auto *next = static_cast<NextRun *>(argument);
  next->mesh = assembleRun(*next->source, next->start, next->size, &next->shells, false);
  // A cut made here while the main thread waits would only take longer than
  // the one the reduction makes on all the cores.
  if (next->source->table && next->mesh && next->shells > 0 && !next->awaited.load()) {
    qvMesh *shell = next->mesh;
    next->mesh = qvMeshUnchain(next->mesh, shell);
    if (reduceParallelFirstCut(shell, &next->first) < 0) {
      next->shells = -1;
    }
  }
  return nullptr;
}

// Starts the thread for the run at start. Signals stay blocked on it, so
// that the handler that removes unfinished output runs on the main thread.
// When no thread can be had, the run is assembled in line when its turn
// comes.
void startNextRun(NextRun &next, int start, int size) {
  next.start = start;
  next.size = size;
  next.mesh = nullptr;
  next.first = {nullptr, nullptr};
  next.shells = -1;
  next.awaited.store(false);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  next.running = pthread_create(&next.thread, nullptr, assembleNextRun, &next) == 0;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The next run's chain: the thread's, once it has ended, or assembled now.
// first receives the shell the thread took off the chain's head, or
// (null, null).
qvMesh *takeNextRun(NextRun &next, int *shells, qvMeshPair *first) {
  *first = {nullptr, nullptr};
  if (!next.running) {
    return assembleRun(*next.source, next.start, next.size, shells, true);
  }
  // The wait is what the run still spends on fetching, assembly and its
  // first cut.
  progressStage(kStageAssembly);
  next.awaited.store(true);
  pthread_join(next.thread, nullptr);
  next.running = false;
  *shells = next.shells;
  *first = next.first;
  next.first = {nullptr, nullptr};
  qvMesh *mesh = next.mesh;
  next.mesh = nullptr;
  return mesh;
}

// After a failure: the thread is joined and its meshes freed.
void dropNextRun(NextRun &next) {
  if (next.running) {
    pthread_join(next.thread, nullptr);
    next.running = false;
  }
  qvMeshDeleteAll(next.mesh);
  qvMeshDeleteAll(next.first.first);
  qvMeshDeleteAll(next.first.second);
  next.mesh = nullptr;
  next.first = {nullptr, nullptr};
}

// The allocator's settings for the block loop. Every block allocates and
// frees the same large working arrays (a copy of its triangles, 56 MB at
// 500,000 facets, and the like) and some hundred MB of records, on the
// producer thread and on the threads that reduce. By default arrays that
// large are mapped afresh each time, and free memory above 128 KB at the top
// of the heap goes back to the system: every block then faults its memory
// in again. Arrays below 64 MB come from the heap here, and up to 64 MB of
// free memory stays with it. On a 14,000,000-facet field (one run each,
// load about 3) this took system time from 5.0 to 2.9 s and the peak from
// 749-789 to 895 MB, where a release of all free memory after every fourth
// block instead had kept the peak lower. The threads other than the main
// one allocate from heaps of 64 MB of their own, and one of those goes back
// to the system whole as soon as nothing in it is in use, whatever the
// threshold, unless the pad kept on top of a heap is as large: with that pad
// the producer's and the reducing threads' heaps stay, and so do the pages
// they have touched (a 2,000,000-facet field: system time 1.1-1.5 to 0.8 s,
// peak 843 to 888 MB). Other allocators are left alone.
constexpr int kArraysMappedFrom = 64 << 20;
constexpr int kFreeKeptUpTo = 64 << 20;
constexpr int kHeapPad = 64 << 20;
constexpr int kNoFastBins = 0;

// Every method has small chunks coalesced as they are freed rather than
// parked in the allocator's fast bins: a leaf frees millions of small
// records and covers, and parked ones are merged in one go at the next large
// request or free, on whichever thread makes it, when a thread of a fork
// ends, or at the exit, where the thread's spare covers go back. On the full
// dragon at 0.1 % (alternated runs, load about 1) this took the low
// method's wall time by about 6 % and the medium's by about 3 %, and took
// the 0.4 s that the high method spent at its exit, with the same outputs.
void coalesceOnFree() {
#if defined(__GLIBC__)
  (void)mallopt(M_MXFAST, kNoFastBins);
#endif
}

void settleBlockMemory() {
#if defined(__GLIBC__)
  (void)mallopt(M_MMAP_THRESHOLD, kArraysMappedFrom);
  (void)mallopt(M_TRIM_THRESHOLD, kFreeKeptUpTo);
  (void)mallopt(M_TOP_PAD, kHeapPad);
#endif
  coalesceOnFree();
}

// The block loop: each run of at most kFacetBlockSize facets becomes a mesh,
// is assembled into a chain of shells and reduced into the open output, and
// the count is patched at the end. While one run is reduced, the next is read
// and assembled on a thread of its own. The number of triangles written, or
// -1.
int64_t reduceBlocks(const FacetSource &source, int count, FILE *output, int method,
                     double tolerance, const double *angle) {
  int64_t oldSum = 0;
  int64_t removedSum = 0;
  const int blocks = (count + kFacetBlockSize - 1) / kFacetBlockSize;
  settleBlockMemory();
  NextRun next = {&source, 0, std::min(kFacetBlockSize, count), nullptr, {nullptr, nullptr},
                  -1, {}, false, {false}};
  for (int start = 0; start < count; start += kFacetBlockSize) {
    const int size = std::min(kFacetBlockSize, count - start);
    progressUnit(kUnitBlock, start / kFacetBlockSize, blocks, size, count);
    // With no tolerance only coinciding coordinates weld. A run that leaves no
    // triangle fails the whole run.
    int shells = -1;
    qvMeshPair first = {nullptr, nullptr};
    qvMesh *mesh;
    if (start == 0 && source.table && size < count) {
      // The in-memory route only reads the facets: the second run's thread
      // starts before the first run is assembled, which would otherwise
      // leave the other cores waiting.
      startNextRun(next, size, std::min(kFacetBlockSize, count - size));
      mesh = assembleRun(source, 0, size, &shells, true);
    } else {
      mesh = takeNextRun(next, &shells, &first);
      if (start + size < count) {
        startNextRun(next, start + size, std::min(kFacetBlockSize, count - start - size));
      }
    }
    if ((!mesh && !first.first) || shells < 1) {
      qvMeshDeleteAll(mesh);
      qvMeshDeleteAll(first.first);
      qvMeshDeleteAll(first.second);
      dropNextRun(next);
      return FT_FAIL(-1);
    }
    // The shell the producer took off the head comes first, as in the chain.
    if (first.first) {
      int32_t old = 0;
      const int written = reduceShell(&first, output, kStlBinary, method, tolerance, angle, &old);
      if (written < 0) {
        qvMeshDeleteAll(mesh);
        dropNextRun(next);
        return FT_FAIL(-1);
      }
      oldSum += old;
      removedSum += old - written;
    }
    int32_t old = 0;
    const int removed = mesh ? reduceMeshChain(mesh, output, nullptr, kStlBinary, method,
                                               tolerance, angle, &old)
                             : 0;
    if (removed < 0) {
      dropNextRun(next);
      return FT_FAIL(-1);
    }
    oldSum += old;
    removedSum += removed;
  }
  const int64_t written = oldSum - removedSum;
  if (written < 0 || written > count || stlPatchCount(static_cast<uint32_t>(written), output) != 0) {
    return FT_FAIL(-1);
  }
  return written;
}

// Closes the output of a block route: kept after success, deleted after any
// failure, a failed close included. The route's result: the scanned count
// minus the triangles written, or -1.
int closeBlockOutput(FILE *output, const std::string &name, int64_t written, int count) {
  if (written < 0) {
    (void)stlCloseOutput(output, name.c_str(), kOutputDiscard); // always -1: the failure is known
    return FT_FAIL(-1);
  }
  if (stlCloseOutput(output, name.c_str(), kOutputCheck) != 0) {
    return FT_FAIL(-1);
  }
  return static_cast<int>(count - written);
}

FILE *openInput(const char *input, int format) {
  if (format == kStlBinary) {
    int64_t status;
    return stlOpenBinary(input, &status);
  }
  int status;
  return stlOpenAscii(input, &status);
}

} // namespace

// ---- The block routes --------------------------------------------------------------

FacetRec **buildSortedFacets(FacetBlock *const *blocks, const FacetBox *box, int count) {
  if (count < 1) {
    return nullptr;
  }
  FacetBox own;
  if (!box) {
    if (facetBoxOfBlocks(blocks, count, &own) != count) {
      return nullptr;
    }
    box = &own;
  }
  return sortFacetPointers(blocks, count, facetSortAxis(box));
}

// The load and the sort come before the output is created, so an input that
// fails them leaves nothing behind.
int reduceInMemory(const char *input, const char *output, int method, const FacetBox *box,
                   double tolerance, const double *angle, int count) {
  FacetBlock *blocks[kFacetBlockMax] = {};
  int blockCount = 0;
  progressStage(kStageRead);
  const int loaded = stlLoadBlocks(input, blocks, &blockCount);
  progressStage(kStageSort);
  FacetRec **table = loaded == count ? buildSortedFacets(blocks, box, count) : nullptr;
  OutputTarget target = {output ? output : "", false};
  int result = -1;
  if (table && output && planOutput(output, sameFile(input, output), &target)) {
    FILE *file = stlCreateBinary(target.name.c_str(), static_cast<uint32_t>(count));
    if (file) {
      const FacetSource source = {table, nullptr, nullptr, kStlUnknown};
      const int64_t written = reduceBlocks(source, count, file, method, tolerance, angle);
      result = closeBlockOutput(file, target.name, written, count);
    }
  }
  std::free(table);
  freeFacetBlocks(blocks, blockCount);
  result = output ? settleOutput(target, output, result) : -1;
  return result < 0 ? FT_FAIL(result) : result;
}

// The same blocks as the in-memory route, from a key per facet: the same axis
// and the same order, so the same file.
int reduceStreamed(const char *input, const char *output, int method, const FacetBox *box,
                   double tolerance, const double *angle, int count) {
  // The route reads the input while it writes the output: the same file would
  // be read after creating the output had emptied it.
  if (!input || !output || sameFile(input, output)) {
    return FT_FAIL(-1);
  }
  int keyCount = count;
  int format = kStlUnknown;
  progressStage(kStageRead);
  FacetKey *keys = readFacetKeys(input, facetSortAxis(box), &keyCount, &format);
  progressStage(kStageSort);
  int result = -1;
  if (keys && keyCount == count && sortFacetKeys(keys, keyCount) == count) {
    FILE *file = stlCreateBinary(output, static_cast<uint32_t>(count));
    if (file) {
      FILE *source = openInput(input, format);
      int64_t written = -1;
      if (source) {
        const FacetSource run = {nullptr, keys, source, format};
        written = reduceBlocks(run, count, file, method, tolerance, angle);
        std::fclose(source);
      }
      result = closeBlockOutput(file, output, written, count);
    }
  }
  std::free(keys);
  return result < 0 ? FT_FAIL(result) : result;
}

// ---- Method entries ----------------------------------------------------------------

void (*gAfterScanHook)(const char *inputName) = nullptr;

namespace {

// The scan, shared by the two block methods; then the route by size.
int reduceBlockMethod(const char *input, const char *output, int method, double tolerance,
                      const double *angle, int32_t *oldCount) {
  int32_t unused;
  int32_t &old = oldCount ? *oldCount : unused;
  // A binary header states the count before a record is read: a file above
  // the limit is refused without the scan, which would read it whole.
  int64_t stated = 0;
  if (FILE *binary = stlOpenBinary(input, &stated)) {
    std::fclose(binary);
    if (stated > kBlockFacetLimit) {
      old = 0;
      return FT_FAIL(-1);
    }
  }
  FacetBox box = {};
  progressStage(kStageScan);
  const int64_t scanned = stlScan(input, &box, nullptr);
  // Taken as unsigned, one test refuses an over-long file and every negative status.
  if (static_cast<uint64_t>(scanned) > static_cast<uint64_t>(kBlockFacetLimit)) {
    old = 0;
    return FT_FAIL(-1);
  }
  const int count = static_cast<int>(scanned);
  if (gAfterScanHook) {
    gAfterScanHook(input);
  }
  const int result = count < kStreamedFrom
                         ? reduceInMemory(input, output, method, &box, tolerance, angle, count)
                         : reduceStreamed(input, output, method, &box, tolerance, angle, count);
  old = count;
  return result;
}

} // namespace

int reduceLow(const char *inputName, const char *outputName, double tolerance,
              const double *angle, int32_t *oldCount) {
  return reduceBlockMethod(inputName, outputName, kMethodLow, tolerance, angle, oldCount);
}

int reduceMedium(const char *inputName, const char *outputName, double tolerance,
                 const double *angle, int32_t *oldCount) {
  return reduceBlockMethod(inputName, outputName, kMethodMedium, tolerance, angle, oldCount);
}

// No count and no box: nothing is sorted or cut, so the model must fit in
// memory as one mesh. A model with no triangle left after assembly (an ASCII
// file without facets, or facets that are all degenerate) writes a valid empty
// file and succeeds with an old count of 0.
int reduceHigh(const char *inputName, const char *outputName, double tolerance,
               const double *angle, int32_t *oldCount) {
  int64_t status = 0;
  coalesceOnFree();
  progressStage(kStageRead);
  FacetRec *facets = stlReadFacets(inputName, &status);
  progressStage(kStageAssembly);
  qvMesh *chain = nullptr;
  int shells = status == 0 ? 0 : -1;
  if (facets && status > 0) {
    chain = assembleFacets(facets, static_cast<int>(status), &shells);
  }
  std::free(facets);
  OutputTarget target;
  if (shells < 0 || !outputName ||
      !planOutput(outputName, sameFile(inputName, outputName), &target)) {
    qvMeshDeleteAll(chain);
    return FT_FAIL(-1);
  }
  if (shells == 0) {
    qvMeshDeleteAll(chain);
    chain = nullptr;
  }
  const int result = reduceMeshChain(chain, nullptr, target.name.c_str(), kStlBinary, kMethodHigh,
                                     tolerance, angle, oldCount);
  const int settled = settleOutput(target, outputName, result);
  return settled < 0 ? FT_FAIL(settled) : settled;
}
