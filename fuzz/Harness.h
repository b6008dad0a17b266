// The fuzz harness of the four file loaders: the names file, the process-UID
// file, the control file and the data file. Each input becomes one of these
// files; a first constructor loads it, a few operations run on what was
// loaded, and the destructor removes the shared state again. Whatever the
// input, a load either fails with a code and a text and leaves the files as
// they were, or gives tables that every operation can work on; and nothing
// is left behind: no segment, no open file, no memory.
#ifndef WM_FUZZ_HARNESS_H
#define WM_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace wmfuzz {

enum class Target { Names, UIDs, ControlFile, DataFile };

// "names", "uids", "wqcf", "wddf".
const char* TargetName(Target t);
bool TargetByName(const char* szName, Target* t);

// Once per process: a private IPC namespace (the segment keys are fixed, and
// a host's own queues must never be touched) and a temporary root with a
// configuration. False, with the reason on stderr, when either can't be had.
bool Init();

// The bytes of a file; empty when it can't be read.
std::string ReadAll(const std::string& path);

// Runs one input against one loader; aborts when something that must hold
// does not.
void RunOne(Target t, const uint8_t* data, size_t size);

} // namespace wmfuzz

#endif
