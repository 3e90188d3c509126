#pragma once

#include <string>
#include <vector>

#include "ht.h"

/// @file
/// The trap-point and call-recording library, taken over for the programs that this is linked into:
/// what the runtime asks of it is written down in order. Trap patterns go on to the library itself;
/// records go nowhere.

namespace zortest {

/// Stands in for the storage manager while it lives; recording is off at first. There may be one at
/// a time. Any thread may call anything.
class FakeRecorder
{
 public:
    FakeRecorder();
    ~FakeRecorder();

    FakeRecorder(const FakeRecorder&) = delete;
    FakeRecorder& operator=(const FakeRecorder&) = delete;

    void Enable() { TIStorageManagerState::enabled = true; }

    /// Lets another process' session begin: no call site is known in it.
    void NewSession();

    /// From now on there is no storage.
    void RemoveStorage();

    /// Call sites described so far.
    int Locations() const;

    /// What the calling thread asked for, in order, since the last time it took this.
    std::vector<std::string> Take();
};

/// Adds to what the calling thread asked for.
void Note(const std::string& what);

/// What @p address is called in the notes.
std::string AddressText(const void* address);

} // namespace zortest
