// Where a run first failed. Every subsystem reports a failure by its result
// alone; FT_FAIL also notes the file and line of the first failure of the
// process, so that a run that ends with the one failure message can say
// where it gave up (the front end prints it when FT_TRACE=1 is set).
//
// Mark only real failures with it, never a refusal that a caller expects and
// goes on from (a format probe, a "no" from a search): the first note wins,
// and a refusal noted early would hide the failure that ended the run.
#pragma once

// Notes file and line unless a failure is noted already. Safe from any
// thread: of failures on several threads at once, exactly one is kept.
void ftFailAt(const char *file, int line);
// The first failure noted as "folder/file.cpp:line", or null when none was.
// Copies into buffer of size bytes.
const char *ftFailPlace(char *buffer, int size);
// Forgets the noted failure, for tests that fail on purpose more than once.
void ftFailReset();

// The failure result value, with its place noted: return FT_FAIL(-1);
#define FT_FAIL(value) (ftFailAt(__FILE__, __LINE__), (value))
