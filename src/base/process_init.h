#pragma once
// Process-wide set-up of the libraries the whole program relies on (libsodium, libcurl).

namespace quill::base {

// Initialises libsodium and libcurl once per process; later calls only return the first outcome.
// Thread-safe. Every user of either library calls it itself (the first call is the costly one), so
// calling it at start-up only moves the cost there. Returns false when either library could not be
// initialised.
bool initializeLibraries();

}  // namespace quill::base
