// Watching a run: the progress line on a terminal and the stage times.
//
// The line. When standard error is a terminal, a run that lasts longer than
// the delay shows one line there, rewritten in place at most every
// kRedrawEvery (or the delay, when that is shorter): the unit of work (block
// or shell), its stage or, while the engine works, the vertices it has dealt
// with of the total, then facets per second and the time left. It is erased
// when the run ends, so nothing of it stays. The engine's notes arrive from
// every worker thread; all the state they touch is atomic, and one thread at
// a time draws (the others skip the drawing and go on).
//
// Progress is counted in input facets: the facets of the finished units, plus
// the share of the current unit that its engine notes say is done (vertices
// taken off the order of the unit's passes, of all the vertices those passes
// started with). Rate and time left follow from the time since the first unit.
//
// The stage times (FT_TIMES=1): wall seconds of each stage of the run on the
// main thread and, summed over the worker threads, the seconds spent in the
// engine's leaves and in their passes. A leaf's time outside its passes goes
// to marking features, capping and uncapping, and preparing and closing
// passes. Printed on standard error as one line when the run ends.
#include "front/front.h"
#include "front/front_internal.h"
#include "kernels/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kDefaultDelay = 2.0;      // seconds before the line first shows
constexpr int64_t kRedrawEvery = 250000000; // nanoseconds between two drawings
constexpr int kLineMax = 256;               // bytes of one drawn line, control codes included
constexpr int kNarrowest = 20;              // a terminal reported narrower is taken as this wide
constexpr int kDefaultWidth = 80;           // the width when the terminal doesn't say

const char *const kEraseLine = "\r\033[K";  // to the line's start, and clear to its end

const char *const kStageWords[kStageCount] = {"scanning", "reading", "sorting", "fetching",
                                              "assembling", "reducing", "writing",
                                              "extracting solids"};
const char *const kStageKeys[kStageCount] = {"scan", "read", "sort", "fetch",
                                             "assembly", "reduce", "write", "solid"};

struct Monitor {
  bool line;                        // the terminal line is on
  bool times;                       // the stage times are on
  int64_t startNs;                  // when the run started
  int64_t delayNs;                  // the line shows from startNs + delayNs
  int64_t redrawNs;                 // at least this long between two drawings
  std::atomic<int64_t> nextDrawNs;  // no drawing before this
  std::atomic<bool> drawn;          // a line stands on the terminal
  std::atomic_flag drawing;         // held by the thread that draws
  std::atomic<int> stage;           // the stage the run is in, or -1
  std::atomic<int> unitKind;        // kUnitBlock, kUnitShell, or 0 before the first unit
  std::atomic<int> unit;            // the current unit, from 0
  std::atomic<int> units;           // the units of the run
  std::atomic<int64_t> unitFacets;  // facets of the current unit
  std::atomic<int64_t> doneFacets;  // facets of the finished units
  std::atomic<int64_t> allFacets;   // facets of the run
  std::atomic<int64_t> workNs;      // when the first unit started, 0 before
  std::atomic<int64_t> vertices;    // vertices of the current unit's passes
  std::atomic<int64_t> verticesDone;  // vertices those passes took off their order
  int64_t stageNs;                  // when the current stage started (main thread only)
  double stageSeconds[kStageCount]; // wall seconds per stage (main thread only)
  std::atomic<int64_t> leafNs;      // summed over threads: time in leaves
  std::atomic<int64_t> passNs;      // summed over threads: time in passes
};

Monitor gMonitor;

// When the thread's open leaf and pass started (0: none open).
thread_local int64_t tLeafStart = 0;
thread_local int64_t tPassStart = 0;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// "1,234,567": groups of three digits.
void groupDigits(int64_t value, char *out, int size) {
  char digits[32];
  const int n = std::snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
  int k = 0;
  for (int i = 0; i < n && k + 2 < size; ++i) {
    if (i > 0 && digits[i - 1] != '-' && (n - i) % 3 == 0) out[k++] = ',';
    out[k++] = digits[i];
  }
  out[k] = '\0';
}

// "1h05m", "3m20s", "45s": short, so that the line fits a narrow terminal.
void formatDuration(double seconds, char *out, int size) {
  const int64_t s = static_cast<int64_t>(seconds + 0.5);
  if (s >= 3600) {
    std::snprintf(out, static_cast<size_t>(size), "%lldh%02lldm",
                  static_cast<long long>(s / 3600), static_cast<long long>(s / 60 % 60));
  } else if (s >= 60) {
    std::snprintf(out, static_cast<size_t>(size), "%lldm%02llds",
                  static_cast<long long>(s / 60), static_cast<long long>(s % 60));
  } else {
    std::snprintf(out, static_cast<size_t>(size), "%llds", static_cast<long long>(s));
  }
}

int terminalWidth() {
  winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kDefaultWidth;
  return size.ws_col < kNarrowest ? kNarrowest : size.ws_col;
}

// The text of the line, without control codes, cut to width - 1 characters
// so that the terminal never wraps it (a wrapped line can't be rewritten).
void composeLine(const Monitor &m, int64_t now, char *out, int size) {
  int k = std::snprintf(out, static_cast<size_t>(size), "FacetTrim:");
  auto add = [&](const char *format, const char *a, const char *b) {
    if (k < size) k += std::snprintf(out + k, static_cast<size_t>(size - k), format, a, b);
  };
  const int kind = m.unitKind.load(std::memory_order_relaxed);
  const int units = m.units.load(std::memory_order_relaxed);
  char a[32];
  char b[32];
  if (kind == kUnitBlock || (kind == kUnitShell && units > 1)) {
    std::snprintf(a, sizeof a, "%d", m.unit.load(std::memory_order_relaxed) + 1);
    std::snprintf(b, sizeof b, "%d", units);
    add(kind == kUnitBlock ? " block %s/%s," : " shell %s/%s,", a, b);
  }
  // While the engine counts, its count stands for the stage's name.
  const int stage = m.stage.load(std::memory_order_relaxed);
  const int64_t total = m.vertices.load(std::memory_order_relaxed);
  int64_t done = m.verticesDone.load(std::memory_order_relaxed);
  done = done > total ? total : done;
  if (stage == kStageReduce && total > 0) {
    groupDigits(done, a, sizeof a);
    groupDigits(total, b, sizeof b);
    add(" %s/%s vertices", a, b);
  } else if (stage >= 0 && stage < kStageCount) {
    add(" %s%s", kStageWords[stage], "");
  }
  // Facets done: the finished units and the reduced share of the current one.
  const int64_t workNs = m.workNs.load(std::memory_order_relaxed);
  const double unitShare = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 0.0;
  const double facets = static_cast<double>(m.doneFacets.load(std::memory_order_relaxed)) +
                        unitShare * static_cast<double>(m.unitFacets.load(std::memory_order_relaxed));
  const double seconds = workNs > 0 ? static_cast<double>(now - workNs) * 1e-9 : 0.0;
  if (facets > 0.0 && seconds > 0.0) {
    const double rate = facets / seconds;
    groupDigits(static_cast<int64_t>(rate + 0.5), a, sizeof a);
    const double rest = static_cast<double>(m.allFacets.load(std::memory_order_relaxed)) - facets;
    formatDuration(rest > 0.0 ? rest / rate : 0.0, b, sizeof b);
    add(", %s facets/s, %s left", a, b);
  }
  const int width = terminalWidth();
  if (width - 1 < size) out[width - 1] = '\0';
}

// Draws the line when it is due; a thread that finds another one drawing
// leaves it to that one.
void drawIfDue(Monitor &m) {
  if (!m.line) return;
  const int64_t now = nowNs();
  if (now < m.nextDrawNs.load(std::memory_order_relaxed)) return;
  if (m.drawing.test_and_set(std::memory_order_acquire)) return;
  if (now >= m.nextDrawNs.load(std::memory_order_relaxed)) {
    char text[kLineMax];
    const int lead = static_cast<int>(std::strlen(kEraseLine));
    std::memcpy(text, kEraseLine, static_cast<size_t>(lead));
    composeLine(m, now, text + lead, kLineMax - lead);
    // One write, so that the line reaches the terminal whole; a failed write
    // only loses the line.
    const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
    (void)written;
    m.drawn.store(true, std::memory_order_relaxed);
    m.nextDrawNs.store(now + m.redrawNs, std::memory_order_relaxed);
  }
  m.drawing.clear(std::memory_order_release);
}

// The sink the engine's notes go to while a run is watched.
void takeNote(const ftProgressNote *note) {
  Monitor &m = gMonitor;
  switch (note->kind) {
  case kProgressLeaf:
    tLeafStart = nowNs();
    break;
  case kProgressLeafEnd:
    if (tLeafStart != 0) m.leafNs.fetch_add(nowNs() - tLeafStart, std::memory_order_relaxed);
    tLeafStart = 0;
    break;
  case kProgressPass:
    tPassStart = nowNs();
    m.vertices.fetch_add(note->count, std::memory_order_relaxed);
    break;
  case kProgressPassEnd:
    if (tPassStart != 0) m.passNs.fetch_add(nowNs() - tPassStart, std::memory_order_relaxed);
    tPassStart = 0;
    break;
  case kProgressSweep:
    m.verticesDone.fetch_add(note->count, std::memory_order_relaxed);
    break;
  default:
    break;
  }
  drawIfDue(m);
}

// Closes the current stage's wall time.
void closeStage(Monitor &m, int64_t now) {
  const int stage = m.stage.load(std::memory_order_relaxed);
  if (stage >= 0 && stage < kStageCount)
    m.stageSeconds[stage] += static_cast<double>(now - m.stageNs) * 1e-9;
  m.stageNs = now;
}

void printTimes(const Monitor &m, int64_t now) {
  char text[512];
  int k = std::snprintf(text, sizeof text, "FacetTrim times:");
  for (int i = 0; i < kStageCount && k < static_cast<int>(sizeof text); ++i)
    k += std::snprintf(text + k, sizeof text - static_cast<size_t>(k), " %s=%.3f", kStageKeys[i],
                       m.stageSeconds[i]);
  if (k < static_cast<int>(sizeof text))
    std::snprintf(text + k, sizeof text - static_cast<size_t>(k),
                  " total=%.3f leaves=%.3f passes=%.3f\n",
                  static_cast<double>(now - m.startNs) * 1e-9,
                  static_cast<double>(m.leafNs.load()) * 1e-9,
                  static_cast<double>(m.passNs.load()) * 1e-9);
  std::fputs(text, stderr);
}

} // namespace

void progressStart(bool line) {
  Monitor &m = gMonitor;
  const char *times = std::getenv("FT_TIMES");
  m.times = times && std::strcmp(times, "1") == 0;
  m.line = line && isatty(STDERR_FILENO) == 1;
  double delay = kDefaultDelay;
  if (const char *given = std::getenv("FT_PROGRESS_DELAY")) {
    char *end = nullptr;
    const double value = std::strtod(given, &end);
    if (end != given && value >= 0.0 && value < 1e6) delay = value;
  }
  m.startNs = nowNs();
  m.delayNs = static_cast<int64_t>(delay * 1e9);
  // A delay shorter than the redraw interval shortens that too, so that a
  // test with delay 0 sees every change the notes bring.
  m.redrawNs = m.delayNs < kRedrawEvery ? m.delayNs : kRedrawEvery;
  m.nextDrawNs.store(m.startNs + m.delayNs);
  m.drawn.store(false);
  m.drawing.clear();
  m.stage.store(-1);
  m.unitKind.store(0);
  m.unit.store(0);
  m.units.store(0);
  m.unitFacets.store(0);
  m.doneFacets.store(0);
  m.allFacets.store(0);
  m.workNs.store(0);
  m.vertices.store(0);
  m.verticesDone.store(0);
  m.stageNs = m.startNs;
  for (double &s : m.stageSeconds) s = 0.0;
  m.leafNs.store(0);
  m.passNs.store(0);
  ftProgressInstall(m.line || m.times ? takeNote : nullptr);
}

void progressStage(int stage) {
  Monitor &m = gMonitor;
  if (!m.line && !m.times) return;
  closeStage(m, nowNs());
  m.stage.store(stage, std::memory_order_relaxed);
  drawIfDue(m);
}

void progressUnit(int kind, int unit, int units, int64_t facets, int64_t allFacets) {
  Monitor &m = gMonitor;
  if (!m.line && !m.times) return;
  if (m.workNs.load(std::memory_order_relaxed) == 0) {
    m.workNs.store(nowNs(), std::memory_order_relaxed);
  } else {
    m.doneFacets.fetch_add(m.unitFacets.load(std::memory_order_relaxed), std::memory_order_relaxed);
  }
  m.unitKind.store(kind, std::memory_order_relaxed);
  m.unit.store(unit, std::memory_order_relaxed);
  m.units.store(units, std::memory_order_relaxed);
  m.unitFacets.store(facets, std::memory_order_relaxed);
  m.allFacets.store(allFacets, std::memory_order_relaxed);
  m.vertices.store(0, std::memory_order_relaxed);
  m.verticesDone.store(0, std::memory_order_relaxed);
}

void progressEnd() {
  Monitor &m = gMonitor;
  ftProgressInstall(nullptr);
  if (!m.line && !m.times) return;
  const int64_t now = nowNs();
  closeStage(m, now);
  m.stage.store(-1);
  if (m.drawn.load()) {
    const ssize_t written = write(STDERR_FILENO, kEraseLine, std::strlen(kEraseLine));
    (void)written;
  }
  if (m.times) printTimes(m, now);
  m.line = false;
  m.times = false;
}
