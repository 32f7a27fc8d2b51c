// Internal to the engine: hooks that let the engine's tests force MuPDF's
// error paths and check that nothing leaks when they are taken.
#pragma once

namespace mu::testing {

// Blocks MuPDF has allocated and not yet freed.
long long liveAllocations();
// After `count` more allocations succeed, every one fails (0: from the next
// one on) until this is called again with -1.
void failAllocationAfter(long long count);
// Drops what MuPDF keeps in its caches (fonts, images, parsed resources).
void emptyCaches();
// How many levels of MuPDF error handling are open on this thread.
int errorDepth();
// Calls `thrower` inside a guard, within a further level of MuPDF error handling.
void throwThroughNestedTry(void (*thrower)());

} // namespace mu::testing
